#include "RecordingUtilsDelegate.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/Localization.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MountedTmpfs.h"
#include "tests/support/RestoredVariable.h"

#include <QDir>
#include <QFile>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString companionDomain = QStringLiteral("org.korvane.Korvane");

QVariantMap record(const QString &pattern, bool regEx = false, const QVariant &enabled = true)
{
    QVariantMap map{{QStringLiteral("excludePattern"), pattern}, {QStringLiteral("excludeRegEx"), regEx}};
    if (enabled.isValid())
        map.insert(QStringLiteral("excludeEnabled"), enabled);
    return map;
}

class QXUtilsScanPolicyTest : public ::testing::Test
{
protected:
    void prefer(const QVariantMap &values) { home.writeDomain(companionDomain, values); }

    FreshPreferences home;
    RecordingUtilsDelegate delegate;
    QXUtils utils{&delegate, {}};
};

TEST(QXExclusionPredicateTest, ContainsIgnoresCaseAndDiacriticsAndMatchesTakesTheWholePath)
{
    using P = QXExclusionPredicate;
    const QString nfdResume = QString::fromUtf8("/h/Re\xCC\x81sume\xCC\x81.pdf"); // combining accents
    struct Row
    {
        P predicate;
        QString path;
        bool expected;
    } rows[] = {
        {P::containing("my.file (1)"), "/h/My.FILE (1).txt", true},
        {P::containing(QString::fromUtf8("r\xC3\xA9sum\xC3\xA9")), "/h/RESUME.pdf", true},
        {P::containing(QString::fromUtf8("R\xC3\xA9sum\xC3\xA9")), nfdResume, true},
        {P::containing("~/Docs"), "/home/u/Docs/x", false},
        {P::containing(""), "/any/path", false},
        {P::matching("jpg$"), "/h/photo.jpg", false},
        {P::matching("jpg$"), "jpg", true},
        {P::matching(".*\\.jpg"), "/h/photo.jpg", true},
        {P::matching(".*\\.jpg"), "/h/photo.JPG", false},
        {P::matching("(unclosed"), "(unclosed", false},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(row.predicate.evaluate(row.path), row.expected)
            << row.predicate.predicateFormat().toStdString() << " " << row.predicate.argument().toStdString() << " on "
            << row.path.toStdString();
    }
}

TEST_F(QXUtilsScanPolicyTest, EachEnabledRecordGivesTwoEngineArgumentsAndOnePredicateEscapedByItsKind)
{
    using P = QXExclusionPredicate;
    struct Row
    {
        QVariantMap record;
        QStringList arguments;
        QList<P> predicates;
    } rows[] = {
        {record("my.file (1)"),
         {"--exclude=my\\.file \\(1\\)", "--exclude-dir=my\\.file \\(1\\)"},
         {P::containing("my.file (1)")}},
        {record("~/Docs"), {"--exclude=/Docs", "--exclude-dir=/Docs"}, {P::containing("~/Docs")}},
        {record("a\\b"), {"--exclude=a\\\\b", "--exclude-dir=a\\\\b"}, {P::containing("a\\b")}},
        {record("^a[b]{c}|d?e*f+g$"),
         {"--exclude=\\^a\\[b]{c}\\|d\\?e\\*f\\+g\\$", "--exclude-dir=\\^a\\[b]{c}\\|d\\?e\\*f\\+g\\$"},
         {P::containing("^a[b]{c}|d?e*f+g$")}},
        {record("jpg$", true), {"--exclude=jpg$", "--exclude-dir=jpg$"}, {P::matching("jpg$")}},
        {record("", false), {}, {}},
        {record("bar", false, false), {}, {}},
        {record("bar", false, QVariant()), {}, {}},
        {{{QStringLiteral("excludePattern"), QStringLiteral("x.y")}, {QStringLiteral("excludeEnabled"), true}},
         {"--exclude=x\\.y", "--exclude-dir=x\\.y"},
         {P::containing("x.y")}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.record.value(QStringLiteral("excludePattern")).toString().toStdString());
        prefer({{QStringLiteral("ExcludePatterns"), QVariantList{row.record}}});
        utils.determineWhatToExcludeFromThisScan();
        EXPECT_EQ(utils.exclusionStrings(), row.arguments);
        EXPECT_TRUE(utils.counterExcludes() == row.predicates);
        EXPECT_TRUE(utils.scanEmailFiles());
    }
}

TEST_F(QXUtilsScanPolicyTest, RecordsKeepTheirOrderMailStoresComeLastWhenMailIsNotScannedAndEveryCallStartsAfresh)
{
    utils.determineWhatToExcludeFromThisScan();
    EXPECT_TRUE(utils.exclusionStrings().isEmpty()) << "the default records are all disabled";
    EXPECT_TRUE(utils.counterExcludes().isEmpty());

    prefer({{QStringLiteral("ScanEmail"), false},
            {QStringLiteral("ExcludePatterns"),
             QVariantList{record("b.c"), record("x", false, false), record("^/tmp/", true)}}});
    for (int call = 0; call < 2; ++call) {
        utils.determineWhatToExcludeFromThisScan();
        EXPECT_FALSE(utils.scanEmailFiles());
        const QStringList arguments = utils.exclusionStrings();
        ASSERT_EQ(arguments.size(), 4 + 6);
        EXPECT_EQ(arguments.mid(0, 4),
                  (QStringList{"--exclude=b\\.c", "--exclude-dir=b\\.c", "--exclude=^/tmp/", "--exclude-dir=^/tmp/"}));
        const QList<QXExclusionPredicate> predicates = utils.counterExcludes();
        ASSERT_EQ(predicates.size(), 2 + 6);
        for (int i = 0; i < 6; ++i) {
            const QString store = utils.emailDirPaths().at(i);
            EXPECT_TRUE(store.startsWith(home.path() + '/')) << store.toStdString();
            EXPECT_EQ(arguments.at(4 + i), "--exclude-dir=" + store);
            EXPECT_TRUE(predicates.at(2 + i) == QXExclusionPredicate::containing(store));
        }
    }

    prefer({});
    utils.determineWhatToExcludeFromThisScan();
    EXPECT_TRUE(utils.exclusionStrings().isEmpty());
    EXPECT_TRUE(utils.counterExcludes().isEmpty());
    EXPECT_TRUE(utils.scanEmailFiles());
}

TEST_F(QXUtilsScanPolicyTest, QuarantineNeedsAnExistingFolderOtherwiseItIsOffForTheScanWithOneConsoleLine)
{
    QDir().mkpath(home.filePath("Quarantine"));
    const QString problem = "appendToConsole:" + Localization::text("QUARANTINE_PROBLEM");
    ASSERT_NE(problem, QStringLiteral("appendToConsole:QUARANTINE_PROBLEM")) << "the text ships with the agent";
    const QVariant absent;
    struct Row
    {
        const char *name;
        QVariant infected;
        QVariant folder;
        bool on;
        QString location;
    } rows[] = {
        {"existing folder", true, "~/Quarantine", true, home.filePath("Quarantine")},
        {"as a dictionary", true, QVariantMap{{"path", "~/Quarantine"}}, true, home.filePath("Quarantine")},
        {"no folder set", true, absent, false, QString()},
        {"dictionary without path", true, QVariantMap{{"name", "~/Quarantine"}}, false, QString()},
        {"not a path", true, 42, false, QString()},
        {"missing folder", true, "~/Gone", false, home.filePath("Gone")},
        {"root", true, "/", false, "/"},
        {"empty", true, "", false, ""},
        {"off keeps the folder", false, "~/Quarantine", false, home.filePath("Quarantine")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        QVariantMap values;
        if (row.infected.isValid())
            values.insert(QStringLiteral("QuarantineInfected"), row.infected);
        if (row.folder.isValid())
            values.insert(QStringLiteral("QuarantineFolder"), row.folder);
        prefer(values);
        delegate.calls.clear();
        utils.determineQuarantineSettings();
        EXPECT_EQ(utils.quarantineFiles(), row.on);
        EXPECT_EQ(utils.quarantineLocation(), row.location);
        EXPECT_EQ(utils.quarantineLocation().isNull(), row.location.isNull());
        const bool asked = row.infected.toBool();
        EXPECT_EQ(delegate.calls, asked && !row.on ? QStringList{problem} : QStringList{});
    }

    // A delegate without a console hears nothing.
    prefer({{QStringLiteral("QuarantineInfected"), true}});
    delegate.calls.clear();
    delegate.implementsOptional = false;
    utils.determineQuarantineSettings();
    EXPECT_FALSE(utils.quarantineFiles());
    EXPECT_TRUE(delegate.calls.isEmpty());
}

TEST_F(QXUtilsScanPolicyTest, MailIsAnyPathThatBeginsWithAStoreExactlyAsWritten)
{
    struct Row
    {
        const char *relative;
        bool mail;
    } rows[] = {
        {".thunderbird/abc.default/Mail/Local Folders/Inbox", true},
        {".thunderbirdArchive/old.mbox", true},
        {".local/share/evolution/mail/local/cur/1", true},
        {"Maildir/cur/1700000000.eml", true},
        {"maildir/cur/1", false},
        {"Documents/Maildir/cur/1", false},
        {".local/share/evolution/calendar/system/calendar.ics", false},
    };
    for (const Row &row : rows)
        EXPECT_EQ(utils.checkIfPathLooksLikeEmail(home.filePath(row.relative)), row.mail) << row.relative;
    EXPECT_FALSE(utils.checkIfPathLooksLikeEmail(QStringLiteral("/srv/Maildir/cur/1")));
}

TEST_F(QXUtilsScanPolicyTest, HomeOfRootJoinsTheMailStoresAndTheTildeWithOneSeparator)
{
    prefer({{QStringLiteral("QuarantineFolder"), QStringLiteral("~/Quarantine")}});
    const RestoredVariable saved("HOME");
    qputenv("HOME", "/");
    QXUtils rootless(&delegate, {});
    rootless.determineQuarantineSettings();

    EXPECT_EQ(rootless.quarantineLocation(), QStringLiteral("/Quarantine"));
    EXPECT_TRUE(rootless.checkIfPathLooksLikeEmail(QStringLiteral("/Maildir/cur/1")));
    for (const QString &store : rootless.emailDirPaths())
        EXPECT_FALSE(store.startsWith(QLatin1String("//"))) << store.toStdString();
}

TEST_F(QXUtilsScanPolicyTest, HomeTrashHoldsWhatIsInsideItButNotASiblingWithALongerName)
{
    const QString trash = home.path() + QStringLiteral("/.local/share/Trash");
    struct Row
    {
        QString path;
        bool inTrash;
    } rows[] = {
        {trash + "/files/eicar.com", true}, {trash + "/info/eicar.com.trashinfo", true},   {trash, true},
        {trash + "Bin/eicar.com", false},   {home.filePath("Downloads/eicar.com"), false},
    };
    for (const Row &row : rows)
        EXPECT_EQ(utils.isFileInTrash(row.path), row.inTrash) << row.path.toStdString();
}

TEST_F(QXUtilsScanPolicyTest, VolumeTrashIsOurUidFolderOrAStickyDotTrashButNeverAnotherUsers)
{
    MountedTmpfs volume;
    if (!volume.isMounted())
        GTEST_SKIP() << volume.reason().toStdString();
    const QString top = volume.path();
    const QString uid = QString::number(getuid());
    // Begins with our uid, so that a bare prefix test would take it for ours.
    const QString other = uid + '1';
    QDir(top).mkpath(".Trash/" + uid + "/files");
    ASSERT_EQ(::chmod(QFile::encodeName(top + "/.Trash").constData(), 01777), 0);

    struct Row
    {
        QString relative;
        bool inTrash;
    } rows[] = {
        {".Trash-" + uid + "/files/eicar.com", true},    {".Trash-" + uid, true},
        {".Trash/" + uid + "/files/eicar.com", true},    {".Trash-" + other + "/files/eicar.com", false},
        {".Trash/" + other + "/files/eicar.com", false}, {"Downloads/eicar.com", false},
    };
    for (const Row &row : rows)
        EXPECT_EQ(utils.isFileInTrash(top + '/' + row.relative), row.inTrash) << row.relative.toStdString();

    const QString shared = top + "/.Trash/" + uid + "/files/eicar.com";
    ASSERT_EQ(::chmod(QFile::encodeName(top + "/.Trash").constData(), 0777), 0);
    EXPECT_FALSE(utils.isFileInTrash(shared)) << "a .Trash without the sticky bit is anyone's";

    ASSERT_TRUE(QDir(top + "/.Trash").removeRecursively());
    QDir(top).mkpath("elsewhere/" + uid);
    ASSERT_EQ(::chmod(QFile::encodeName(top + "/elsewhere").constData(), 01777), 0);
    ASSERT_TRUE(QFile::link(top + "/elsewhere", top + "/.Trash"));
    EXPECT_FALSE(utils.isFileInTrash(shared)) << "a .Trash that is a link leads elsewhere";
}

TEST_F(QXUtilsScanPolicyTest, BatchLosesExcludedMailQuarantinedAndTrashedPathsAndKeepsTheRestInOrder)
{
    QDir().mkpath(home.filePath("Quarantine"));
    const QVariantList patterns{record(QString::fromUtf8("/Priv\xC3\xA9/")), record(".*\\.part", true),
                                record(".*/build", true)};
    const QStringList kept{home.filePath("Documents/report.pdf"), home.filePath("Prive.txt"),
                           home.filePath("movie.part.txt"), home.filePath("QuarantineOld/eicar.com"),
                           home.filePath("build.log")};
    // A file is left out with the folder a pattern names, as the watcher leaves the folder unwatched.
    const QStringList excluded{home.filePath("Documents/PRIVE/eicar.com"), home.filePath("movie.part"),
                               home.filePath("src/build/out/eicar.com"),
                               home.filePath("Quarantine/eicar.com"),
                               home.path() + "/.local/share/Trash/files/eicar.com"};
    const QString mail = home.filePath("Maildir/cur/1");
    const QStringList batch = QStringList{mail} + excluded + kept;

    // The quarantine folder is left out even when scans do not quarantine.
    prefer({{QStringLiteral("ExcludePatterns"), patterns},
            {QStringLiteral("ScanEmail"), false},
            {QStringLiteral("QuarantineFolder"), QStringLiteral("~/Quarantine/")}});
    utils.determineQuarantineSettings();
    utils.determineWhatToExcludeFromThisScan();
    EXPECT_EQ(utils.leaveExcludedPathsOutOfBatch(batch), kept);

    prefer({{QStringLiteral("ExcludePatterns"), patterns}, {QStringLiteral("QuarantineFolder"), QStringLiteral("/")}});
    utils.determineQuarantineSettings();
    utils.determineWhatToExcludeFromThisScan();
    EXPECT_EQ(utils.leaveExcludedPathsOutOfBatch(batch),
              QStringList{mail} + QStringList{home.filePath("Quarantine/eicar.com")} + kept);
}

TEST_F(QXUtilsScanPolicyTest, FolderHoldingExcludedEntriesIsOpenedOnlyAlongTheBranchesThatLeadToThem)
{
    LogCapture log;
    for (const char *file : {"W/Clean/a.txt", "W/Clean/b/c.txt", "W/Mixed/keep.txt", "W/Mixed/Private/eicar.com",
                             "W/Mixed/deep/Private/eicar.com", "W/Mixed/deep/ok.txt", "W/AllPrivate/Private/eicar.com",
                             ".local/share/Trash/files/eicar.com"})
        home.writeFile(file, "x");
    ASSERT_TRUE(QFile::link(home.filePath("W/Clean"), home.filePath("W/Mixed/link")));

    prefer({{QStringLiteral("ExcludePatterns"), QVariantList{record("/Private/")}}});
    utils.determineQuarantineSettings();
    utils.determineWhatToExcludeFromThisScan();
    EXPECT_EQ(utils.leaveExcludedPathsOutOfBatch(
                  {home.filePath("W/Clean"), home.filePath("W/Mixed"), home.filePath("W/AllPrivate")}),
              (QStringList{home.filePath("W/Clean"), home.filePath("W/Mixed/deep/ok.txt"),
                           home.filePath("W/Mixed/keep.txt")}));
    EXPECT_TRUE(log.contains(QStringLiteral("left out of this scan: 3"))) << log.lines().join('\n').toStdString();

    // Without exclusion rules only the way down to the Trash is opened.
    prefer({});
    utils.determineWhatToExcludeFromThisScan();
    const QStringList kept = utils.leaveExcludedPathsOutOfBatch({home.path()});
    EXPECT_TRUE(kept.contains(home.filePath("W"))) << kept.join(' ').toStdString();
    EXPECT_FALSE(kept.contains(home.path()));
    for (const QString &path : kept)
        EXPECT_FALSE(path.startsWith(home.filePath(".local/share/Trash"))) << path.toStdString();
}

} // namespace
