#include "Tarnlib/Tarnlib/QXUtils.h"
#include "Tarnlib/Tarnlib/QXUtilsDelegate.h"
#include "platform/BundleInfo.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"
#include "tests/support/FreshPreferences.h"

#include <QDir>
#include <QFileInfo>
#include <gtest/gtest.h>

namespace {

const QString agentDomain = QStringLiteral("org.korvane.KorvaneVarden");
const QString companionDomain = QStringLiteral("org.korvane.Korvane");

class SilentDelegate : public QXUtilsDelegate
{
public:
    bool useClamd() override { return true; }
    bool wantScanStatusUpdates() override { return false; }
    bool wantUpdatePercentages() override { return true; }
    void scanStarted() override {}
    void scanFinishedWithStatus(int) override {}
    void scanCrashed(const QString &) override {}
    void infectionFound(const QString &, const QString &) override {}
    void updateProgressBarWithCountOfFilesScannedSoFar(quint32) override {}
    void engineNotFound() override {}
    void engineFoundWithVersionString(const QString &) override {}
    void updateStarted() override {}
    void updateFinishedWithStatus(int) override {}
    void updateProgressWithMessage(const QString &) override {}
    void updateProgressWithPercentDone(double) override {}
    void fileCounterReturned(qint64) override {}
};

class QXUtilsPreferencesTest : public ::testing::Test
{
protected:
    QXUtils *make() { return utils.emplace_back(std::make_unique<QXUtils>(&delegate)).get(); }

    void TearDown() override { BundleInfo::setBundleIdentifier(agentDomain); }

    FreshPreferences home;
    SilentDelegate delegate;
    std::vector<std::unique_ptr<QXUtils>> utils;
};

TEST_F(QXUtilsPreferencesTest, BuiltInDefaultsAnswerWhatNoDomainHolds)
{
    QXUtils *u = make();
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("ScanEmail")), QVariant(true));
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("QuarantineInfected")), QVariant(false));
    EXPECT_FALSE(u->readPreferenceForKey(QStringLiteral("VardenFolderArray")).isValid());
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("ScheduleScanTime")).toDateTime(),
              QDateTime(QDate(2001, 3, 24), QTime(15, 45), Qt::UTC));
    const QVariantList sources = u->readPreferenceForKey(QStringLiteral("sourceContents")).toList();
    ASSERT_EQ(sources.size(), 3);
    EXPECT_EQ(sources.at(1).toMap().value(QStringLiteral("name")).toString(), QStringLiteral("~/Documents"));
}

TEST_F(QXUtilsPreferencesTest, FreshInstallationExcludesNothingAndCommentsAreLocalised)
{
    const QVariantList patterns = make()->readPreferenceForKey(QStringLiteral("ExcludePatterns")).toList();
    ASSERT_EQ(patterns.size(), 3);
    QStringList seen;
    for (const QVariant &record : patterns) {
        const QVariantMap map = record.toMap();
        EXPECT_FALSE(map.value(QStringLiteral("excludeEnabled")).toBool());
        EXPECT_FALSE(map.value(QStringLiteral("excludeComments")).toString().startsWith(QLatin1String("EXCLUDE_")));
        seen << map.value(QStringLiteral("excludePattern")).toString();
    }
    EXPECT_EQ(seen, (QStringList{"jpg$", "^foo", "bar"}));
    EXPECT_TRUE(patterns.at(0).toMap().value(QStringLiteral("excludeRegEx")).toBool());
    EXPECT_FALSE(patterns.at(2).toMap().value(QStringLiteral("excludeRegEx")).toBool());
}

TEST_F(QXUtilsPreferencesTest, AgentDomainWinsOverCompanionDomainWhichWinsOverDefaults)
{
    home.writeDomain(companionDomain, {{QStringLiteral("ScanEmail"), false}, {QStringLiteral("LogScans"), false}});
    home.writeDomain(agentDomain, {{QStringLiteral("LogScans"), true}});
    QXUtils *u = make();
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("ScanEmail")), QVariant(false));
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("LogScans")), QVariant(true));
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("AlertOnDetect")), QVariant(true));
}

TEST_F(QXUtilsPreferencesTest, CompanionEditsAreSeenAtTheNextRead)
{
    QXUtils *u = make();
    EXPECT_FALSE(u->readPreferenceForKey(QStringLiteral("VardenFolderArray")).isValid());
    const QVariantList folders{QVariantMap{{QStringLiteral("pathName"), QStringLiteral("~/Downloads")}}};
    home.writeDomain(companionDomain, {{QStringLiteral("VardenFolderArray"), folders}});
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("VardenFolderArray")).toList(), folders);
}

TEST_F(QXUtilsPreferencesTest, TheAgentCannotWriteSettingsThroughTheCompanionOperations)
{
    home.writeDomain(companionDomain, {{QStringLiteral("ScanEmail"), true}});
    QXUtils *u = make();
    u->setPreference(false, QStringLiteral("ScanEmail"));
    u->deletePreferenceForKey(QStringLiteral("ScanEmail"));
    u->syncPrefs();
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("ScanEmail")), QVariant(true));
    EXPECT_FALSE(home.readDomain(agentDomain).contains(QStringLiteral("ScanEmail")));
    EXPECT_TRUE(home.readDomain(companionDomain).value(QStringLiteral("ScanEmail")).toBool());
}

TEST_F(QXUtilsPreferencesTest, RunningAsTheCompanionWritesItsOwnDomainAndAddsNoSuite)
{
    BundleInfo::setBundleIdentifier(companionDomain);
    FreshPreferences companionHome; // a store made under the companion's identifier
    QXUtils u(&delegate);
    EXPECT_TRUE(companionHome.defaults()->suites().isEmpty());
    u.setPreference(false, QStringLiteral("ScanEmail"));
    u.syncPrefs();
    EXPECT_EQ(companionHome.readDomain(companionDomain).value(QStringLiteral("ScanEmail")), QVariant(false));
    u.deletePreferenceForKey(QStringLiteral("ScanEmail"));
    u.syncPrefs();
    EXPECT_FALSE(companionHome.readDomain(companionDomain).contains(QStringLiteral("ScanEmail")));
}

TEST_F(QXUtilsPreferencesTest, BufferedValueIsSeenBeforeTheCommitAndGoneAfterARevert)
{
    QXUtils *u = make();
    u->preferences()->setValue(QStringLiteral("--verbose"), QStringLiteral("AdditionalCmdLineArgs"));
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("AdditionalCmdLineArgs")).toString(), QStringLiteral("--verbose"));
    EXPECT_FALSE(home.readDomain(agentDomain).contains(QStringLiteral("AdditionalCmdLineArgs")));
    u->revertPrefs();
    EXPECT_FALSE(u->readPreferenceForKey(QStringLiteral("AdditionalCmdLineArgs")).isValid());
}

TEST_F(QXUtilsPreferencesTest, SetupRecordsTheFirstEngineCandidateInTheAgentsOwnDomain)
{
    QXUtils *u = make();
    u->setup();
    const QVariantMap own = home.readDomain(agentDomain);
    EXPECT_EQ(own.value(QStringLiteral("PathToClamav")).toString(), QStringLiteral("/usr/local/korvane"));
    EXPECT_EQ(own.value(QStringLiteral("PathToUpdateLog")).toString(),
              QStringLiteral("/usr/local/korvane/share/clamav/freshclam.log"));
}

TEST_F(QXUtilsPreferencesTest, CustomEnginePrefixIsTriedLastWithTheTemporaryUpdateLog)
{
    home.writeDomain(companionDomain, {{QStringLiteral("PathToClamav"), QStringLiteral("/opt/engine")}});
    QXUtils *u = make();
    ASSERT_EQ(u->enginePathsArray().size(), 6);
    EXPECT_EQ(u->enginePathsArray().last(), QStringLiteral("/opt/engine"));
    EXPECT_EQ(u->updateLogPathsArray().last(), QStringLiteral("/tmp/freshclam.log"));
    EXPECT_EQ(u->enginePath(), QStringLiteral("/usr/local/korvane"));
}

TEST_F(QXUtilsPreferencesTest, AppStoreMarkIgnoresTheCustomPrefixAndIsClearedAtTheNextCommit)
{
    home.writeDomain(agentDomain, {{QStringLiteral("PathToClamav"), QStringLiteral("/opt/engine")},
                                   {QStringLiteral("isAppStore"), true}});
    QXUtils *u = make();
    EXPECT_EQ(u->enginePathsArray().size(), 5);
    EXPECT_FALSE(u->readPreferenceForKey(QStringLiteral("isAppStore")).isValid());
    EXPECT_TRUE(home.readDomain(agentDomain).contains(QStringLiteral("isAppStore")));
    u->syncPrefs();
    EXPECT_FALSE(home.readDomain(agentDomain).contains(QStringLiteral("isAppStore")));
}

TEST_F(QXUtilsPreferencesTest, ScanLogLivesInTheStateFolderWhichIsCreated)
{
    QXUtils *u = make();
    EXPECT_EQ(u->pathToScanLog(), home.stateHome() + QStringLiteral("/korvane/KorvaneVarden-scan.log"));
    EXPECT_TRUE(QFileInfo(home.stateHome() + QStringLiteral("/korvane")).isDir());
    EXPECT_EQ(u->launchAgentsDir(), home.configHome() + QStringLiteral("/autostart"));
    EXPECT_EQ(u->emailDirPaths().size(), 6);
    EXPECT_TRUE(u->emailDirPaths().first().startsWith(home.path()));
    EXPECT_EQ(u->exclusionStringsForRootVolScan(), (QStringList{"/Volumes", "/dev", "/net"}));
}

} // namespace
