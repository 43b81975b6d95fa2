#include "Tarnlib/Tarnlib/QXQueryEvaluator.h"
#include "Tarnlib/Tarnlib/QXQueryParser.h"
#include "tests/support/TemporaryHome.h"

#include <QFile>

#include <gtest/gtest.h>

namespace {

// A few files of known name, type, size, content and age, and a fixed "now"
// on Monday 23 November 2026 at noon.
class QXQueryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        write("Report Draft.txt", "Quarterly café figures\nsecond line\n", {2026, 11, 20});
        write("photo.JPG", QByteArray("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00", 11) + QByteArray(1989, '\0'), {2026, 11, 22});
        write("Résumé.pdf", "%PDF-1.4\n%nothing\n", {2026, 11, 23});
        write("big.bin", QByteArray(5000, '\x01'), {2025, 1, 1});
        write("notesForToday.txt", "x", {2026, 11, 1});
    }

    void write(const QString &name, const QByteArray &contents, QDate modified)
    {
        const QString path = home.writeFile(name, contents);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.setFileTime(QDateTime(modified, QTime(15, 0)), QFileDevice::FileModificationTime));
    }

    bool matches(const QString &query, const QString &file)
    {
        QXQueryParser parser(now);
        const auto tree = parser.parse(query);
        EXPECT_TRUE(tree) << query.toStdString() << ": " << parser.errorString().toStdString();
        return QXQueryEvaluator(tree).matches(home.filePath(file));
    }

    TemporaryHome home;
    const QDateTime now{QDate(2026, 11, 23), QTime(12, 0)};
};

// A saved search scanned other files than the ones it describes.
TEST_F(QXQueryTest, QueriesMatchTheFilesWhoseAttributesTheyDescribe)
{
    const char *txt = "Report Draft.txt", *jpg = "photo.JPG", *pdf = "Résumé.pdf", *bin = "big.bin";
    // Long flat chains are common in generated searches and must not nest.
    const QStringList longChain(100000, R"(kMDItemFSName = "*.txt")");
    const struct
    {
        QString query;
        const char *file;
        bool expected;
    } rows[] = {
        {R"(kMDItemDisplayName == "Report Draft.txt")", txt, true},
        {R"(kMDItemDisplayName == "report*")", txt, false},
        {R"(kMDItemDisplayName == "report*"c)", txt, true},
        {R"(kMDItemFSName = "Resume.pdf"cd)", pdf, true},
        {R"(kMDItemFSName = "Resume.pdf"c)", pdf, false},
        {R"(kMDItemDisplayName == "draft"cw)", txt, true},
        {R"(kMDItemDisplayName == "draft"w)", txt, false},
        {R"(kMDItemDisplayName == "raft"cw)", txt, false},
        {R"(kMDItemDisplayName == "dra*"cw)", txt, true},
        {R"(kMDItemDisplayName == "for"cw)", "notesForToday.txt", true},
        {R"(kMDItemDisplayName == "today"w)", "notesForToday.txt", false},
        {R"(kMDItemDisplayName == "sfor"cw)", "notesForToday.txt", false},
        {R"(kMDItemDisplayName == "photo.?PG")", jpg, true},
        {R"(kMDItemDisplayName == "photo.\?PG")", jpg, false},
        {R"(kMDItemContentType == "public.jpeg")", jpg, true},
        {R"(kMDItemContentTypeTree == "public.image")", jpg, true},
        {R"(kMDItemContentTypeTree == "public.image")", txt, false},
        {R"(kMDItemContentTypeTree == "public.text")", txt, true},
        {R"(kMDItemContentTypeTree != "public.image")", txt, true},
        {R"(kMDItemContentType == "com.adobe.pdf")", pdf, true},
        {R"(kMDItemTextContent == "*café*")", txt, true},
        {R"(kMDItemTextContent == "*CAFE*"cd)", txt, true},
        {R"(kMDItemTextContent == "*cafe*"c)", txt, false},
        {R"(kMDItemTextContent == "figures"w)", txt, true},
        {R"(kMDItemTextContent == "figure"w)", txt, false},
        {R"(kMDItemTextContent == "*")", bin, false},
        {R"(kMDItemTextContent == "*")", pdf, false},
        {R"(* == "*café*"cd)", txt, true},
        {R"(* == "photo*"c)", jpg, true},
        {R"(* != "photo*"c)", jpg, false},
        {"kMDItemFSSize > 4096", bin, true},
        {"kMDItemFSSize < 4096", jpg, true},
        {"InRange(kMDItemFSSize, 1000, 2000)", jpg, true},
        {"InRange(kMDItemFSSize, 2001, 4999)", jpg, false},
        {"kMDItemFSContentChangeDate >= $time.today(-7)", txt, true},
        {"kMDItemFSContentChangeDate >= $time.today(-7)", bin, false},
        {"kMDItemContentModificationDate < $time.this_year", bin, true},
        {"kMDItemContentModificationDate < $time.this_year", txt, false},
        {"kMDItemFSContentChangeDate >= $time.this_month", txt, true},
        {"kMDItemFSContentChangeDate >= $time.this_month(-1)", bin, false},
        {"kMDItemFSContentChangeDate >= $time.this_week(-1)", txt, true},
        {"kMDItemFSContentChangeDate >= $time.yesterday && kMDItemFSContentChangeDate < $time.today", jpg, true},
        {"kMDItemFSContentChangeDate >= $time.yesterday && kMDItemFSContentChangeDate < $time.today", pdf, false},
        {"kMDItemFSContentChangeDate > $time.now(-86400)", txt, false},
        {"kMDItemFSContentChangeDate > $time.now(-86400)", pdf, true},
        {"InRange(kMDItemFSContentChangeDate, $time.iso(2026-11-20T00:00:00), $time.iso(2026-11-21))", txt, true},
        {"InRange(kMDItemFSContentChangeDate, $time.iso(2026-11-20T00:00:00), $time.iso(2026-11-21))", jpg, false},
        {R"(!(kMDItemFSName == "*.txt"))", txt, false},
        {R"(!(kMDItemFSName == "*.txt"))", jpg, true},
        {R"(kMDItemFSName == "*.pdf" || kMDItemFSSize > 4096)", bin, true},
        {R"(kMDItemFSName == "*.pdf" || kMDItemFSSize > 4096)", jpg, false},
        {R"(((kMDItemFSName = "*.txt")) && (true))", txt, true},
        {R"(false || kMDItemFSName = "big.bin")", bin, true},
        {R"(kMDItemFSName == "*.txt" && !false && kMDItemFSSize < 10)", txt, false},
        {R"(kMDItemFSName != "big.bin")", bin, false},
        {R"(kMDItemAuthors == "*")", txt, false},
        {R"(kMDItemAuthors != "x")", txt, false},
        {R"((** = "quarterly*"cdw))", txt, true},
        {R"((** = "report*"cdw) && (** = "*CAFE*"cd))", txt, true},
        {R"(** == "photo*")", jpg, true},
        {R"(** != "photo*"wc)", jpg, false},
        {"kMDItemFSSize > 1e6", bin, false},
        {"kMDItemFSSize > 4.99E3", bin, true},
        {"kMDItemFSSize < 5.0e+3", bin, false},
        {"kMDItemFSSize >= +2e-1 && kMDItemFSSize <= .5e4", bin, true},
        {"kMDItemFSSize > -1E2", txt, true},
        {"InRange(kMDItemFSSize, 1e3, 2E3)", jpg, true},
        {"kMDItemFSContentChangeDate >= $time.today(-7) && kMDItemFSContentChangeDate < $time.today(+1)", txt, true},
        // A number of seconds past any date stays a comparison, however large.
        {"kMDItemFSContentChangeDate < 1e300", txt, true},
        {"kMDItemFSContentChangeDate > 1e300", txt, false},
        {longChain.join(" && "), txt, true},
        {longChain.join(" || "), bin, false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(matches(row.query, QString::fromUtf8(row.file)), row.expected)
            << row.query.left(120).toStdString() << " on " << row.file;
}

TEST_F(QXQueryTest, MalformedQueriesAreRefusedWithAReason)
{
    // Nesting beyond any real search is refused rather than followed.
    QStringList queries{QString(100000, '(') + R"(kMDItemFSName == "a")" + QString(100000, ')'),
                        QString(200000, '!') + "true"};
    // Time offsets past any count of days.
    queries << "kMDItemFSContentChangeDate > $time.today(1e300)"
            << "kMDItemFSContentChangeDate > $time.this_week(4e9)";
    for (const char *query :
         {"", "   ", R"(kMDItemFSName ==)", R"(kMDItemFSName == "abc)", R"((kMDItemFSName == "a")",
          R"(kMDItemFSName == "a"))", R"(kMDItemFSName "a")", R"(kMDItemFSName == "a"x)", "InRange(kMDItemFSSize, 1)",
          "InRange kMDItemFSSize", R"(kMDItemFSName == "a" &&)", R"(|| kMDItemFSName == "a")",
          "kMDItemFSContentChangeDate > $time.someday", "kMDItemFSContentChangeDate > $time.today(x)",
          "kMDItemFSContentChangeDate > $time.iso(not a date)", R"(kMDItemFSName == "a" kMDItemFSSize > 1)",
          "kMDItemFSSize > ", "!", "kMDItemFSSize >> 3"})
        queries << QString::fromUtf8(query);
    for (const QString &query : std::as_const(queries)) {
        QXQueryParser parser;
        EXPECT_FALSE(parser.parse(query)) << query.left(120).toStdString();
        EXPECT_FALSE(parser.errorString().isEmpty()) << query.left(120).toStdString();
    }
}

} // namespace
