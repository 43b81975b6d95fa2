#include "RecordingUtilsDelegate.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/Localization.h"
#include "platform/PropertyList.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <plist/plist.h>

namespace {

QByteArray binaryForm(const QByteArray &xml)
{
    plist_t root = nullptr;
    plist_from_xml(xml.constData(), uint32_t(xml.size()), &root);
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    plist_free(root);
    const QByteArray binary(bytes, qsizetype(length));
    plist_to_bin_free(bytes);
    return binary;
}

// The inner query and scope pair of a saved search.
QVariantMap rawQueryDict(const char *query, const QVariant &scopes)
{
    return {{"RawQueryDict", QVariantMap{{"RawQuery", QString::fromUtf8(query)}, {"SearchScopes", scopes}}}};
}

QVariantMap joined(QVariantMap map, const QVariantMap &more)
{
    map.insert(more);
    return map;
}

class QXSavedSearchTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char *file : {"Docs/a.txt", "Docs/b.txt", "Docs/c.pdf", "Docs/Inner/d.txt", "Other/e.txt"})
            home.writeFile(file, "x");
    }

    QString docs(const char *name) const { return home.filePath(QStringLiteral("Docs/") + name); }

    // Expands on a thread of its own, as the scanner and the counter do.
    QStringList expand(const QString &path, bool *whole = nullptr)
    {
        QStringList found;
        std::unique_ptr<QThread> thread(
            QThread::create([&] { found = utils.obtainFilesForSavedSearchAtPath(path, whole); }));
        thread->start();
        EXPECT_TRUE(QTest::qWaitFor([&] { return thread->isFinished(); }, 20000));
        QCoreApplication::processEvents();
        return found;
    }

    QString problem(const QString &path) const
    {
        return "appendToConsole:"
               + Localization::text("SPOTLIGHT_PROBLEM").replace(QLatin1String("%@"), QFileInfo(path).fileName());
    }

    FreshPreferences home;
    LogCapture log;
    RecordingUtilsDelegate delegate;
    QXUtils utils{&delegate, {}};
};

TEST_F(QXSavedSearchTest, QueryAndScopesAreReadFromEitherPlaceInEitherForm)
{
    const QVariantList docsScope{home.filePath("Docs")};
    const QVariantMap txtInDocs = rawQueryDict(R"(kMDItemFSName == "*.txt")", docsScope).value("RawQueryDict").toMap();
    const QVariantMap pdfInHome{{"RawQuery", R"(kMDItemContentType == "com.adobe.pdf")"},
                                {"SearchCriteria", QVariantMap{{"CurrentFolderPath", QVariantList{"~"}}}}};
    const QVariantMap noScopes{{"RawQuery", R"(kMDItemFSName == "*.txt")"}};
    const struct
    {
        const char *name;
        QVariant contents;
        QStringList expected;
    } rows[] = {
        {"the inner pair wins over the top-level one",
         joined({{"RawQueryDict", txtInDocs}}, pdfInHome),
         {docs("a.txt"), docs("b.txt"), docs("Inner/d.txt")}},
        {"an inner pair without scopes gives way to the top-level pair",
         joined({{"RawQueryDict", noScopes}}, pdfInHome),
         {docs("c.pdf")}},
        {"a home scope",
         rawQueryDict(R"(kMDItemFSName == "e.txt")", QVariantList{"kMDQueryScopeHome"}),
         {home.filePath("Other/e.txt")}},
        {"a query that finds nothing", rawQueryDict(R"(kMDItemFSName == "zzz")", docsScope), {}},
    };
    for (const auto &row : rows) {
        for (const bool binary : {false, true}) {
            const QByteArray xml = PropertyList::toXml(row.contents);
            const QString path =
                home.writeFile(QStringLiteral("Search%1.savedSearch").arg(binary), binary ? binaryForm(xml) : xml);
            EXPECT_EQ(expand(path), row.expected) << row.name << (binary ? " (binary)" : " (XML)");
        }
    }
}

TEST_F(QXSavedSearchTest, UnusableSavedSearchesFindNothingAndSayWhichOne)
{
    const QVariantList docsScope{home.filePath("Docs")};
    const struct
    {
        const char *name;
        QByteArray contents;
    } rows[] = {
        {"no query at all",
         PropertyList::toXml(QVariantMap{{"SearchCriteria", QVariantMap{{"CurrentFolderPath", docsScope}}}})},
        {"a query without scopes", PropertyList::toXml(QVariantMap{{"RawQuery", "true"}})},
        {"not a dictionary", PropertyList::toXml(QVariantList{"RawQuery"})},
        {"not a property list", "RawQuery = true"},
        {"an unclosed string", PropertyList::toXml(rawQueryDict(R"(kMDItemFSName == "a)", docsScope))},
        {"an unknown modifier", PropertyList::toXml(rawQueryDict(R"(kMDItemFSName == "a"q)", docsScope))},
        {"a dangling operator", PropertyList::toXml(rawQueryDict("kMDItemFSSize > 1 &&", docsScope))},
        {"larger than a saved search ever is",
         PropertyList::toXml(rawQueryDict("true", docsScope)).replace("<plist", QByteArray(1100000, ' ') + "<plist")},
        {"arrays nested 100,000 deep",
         PropertyList::toXml(rawQueryDict("true", docsScope))
             .replace("<dict>", "<dict><key>Deep</key>" + QByteArray("<array>").repeated(100000)
                                    + QByteArray("</array>").repeated(100000))},
    };
    for (const auto &row : rows) {
        const QString path = home.writeFile("Bad.savedSearch", row.contents);
        delegate.calls.clear();
        EXPECT_TRUE(expand(path).isEmpty()) << row.name;
        EXPECT_EQ(delegate.calls, QStringList{problem(path)}) << row.name;
    }
    const QString fifo = home.filePath("Fifo.savedSearch");
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    const QString endless = home.filePath("Endless.savedSearch");
    ASSERT_TRUE(QFile::link("/dev/zero", endless));
    for (const QString &path : {fifo, endless}) {
        delegate.calls.clear();
        EXPECT_TRUE(expand(path).isEmpty()) << qPrintable(path);
        EXPECT_EQ(delegate.calls, QStringList{problem(path)});
    }
    delegate.calls.clear();
    EXPECT_TRUE(expand(home.filePath("Missing.savedSearch")).isEmpty());
    EXPECT_EQ(delegate.calls, QStringList{problem("Missing.savedSearch")});
}

TEST_F(QXSavedSearchTest, WalksGiveUpAfterTheirBoundWithAMessage)
{
    const QByteArray everything =
        PropertyList::toXml(rawQueryDict(R"(kMDItemFSName == "*")", QVariantList{"kMDQueryScopeComputer"}));
    const QString path = home.writeFile("All.savedSearch", everything);
    utils.setSavedSearchEntryLimit(50);
    bool whole = true;
    const QStringList found = expand(path, &whole);
    EXPECT_EQ(found.size(), 50);
    EXPECT_TRUE(found.first().startsWith('/'));
    EXPECT_FALSE(whole);
    EXPECT_TRUE(log.contains(QStringLiteral("saved search %1 gave up after 50 entries").arg(path)));
    // The owner hears that files past the bound go unscanned, not that the search found 50.
    const QString cut = Localization::text("SPOTLIGHT_CUT")
                            .replace(QLatin1String("%@"), QStringLiteral("All.savedSearch"))
                            .replace(QLatin1String("%d"), QStringLiteral("50"));
    EXPECT_EQ(delegate.calls, (QStringList{"savedSearchCutAtPath:" + path + ":50", "appendToConsole:" + cut}));

    // Within the bound nothing is said.
    utils.setSavedSearchEntryLimit(7);
    const QString docsOnly = home.writeFile(
        "Docs.savedSearch", PropertyList::toXml(rawQueryDict("true", QVariantList{home.filePath("Docs")})));
    EXPECT_EQ(expand(docsOnly, &whole).size(), 5);
    EXPECT_TRUE(whole);
    EXPECT_FALSE(log.anyContains(docsOnly + " gave up"));
}

} // namespace
