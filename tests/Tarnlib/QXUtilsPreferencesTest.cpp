#include "RecordingUtilsDelegate.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"

#include <QFileInfo>
#include <gtest/gtest.h>

namespace {

const QString agentDomain = QStringLiteral("org.korvane.KorvaneVarden");
const QString companionDomain = QStringLiteral("org.korvane.Korvane");

class QXUtilsPreferencesTest : public ::testing::Test
{
protected:
    QXUtils *make() { return utils.emplace_back(std::make_unique<QXUtils>(&delegate)).get(); }

    FreshPreferences home;
    RecordingUtilsDelegate delegate;
    std::vector<std::unique_ptr<QXUtils>> utils;
};

TEST_F(QXUtilsPreferencesTest, AgentDomainWinsOverCompanionDomainWhichIsReadAnewAndWinsOverDefaults)
{
    home.writeDomain(agentDomain, {{QStringLiteral("LogScans"), true}});
    QXUtils *u = make();
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("ScanEmail")), QVariant(true));
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("sourceContents")).toList().size(), 3);
    EXPECT_FALSE(u->readPreferenceForKey(QStringLiteral("VardenFolderArray")).isValid());

    const QVariantList folders{QVariantMap{{QStringLiteral("pathName"), QStringLiteral("~/Downloads")}}};
    home.writeDomain(companionDomain, {{QStringLiteral("ScanEmail"), false},
                                       {QStringLiteral("LogScans"), false},
                                       {QStringLiteral("VardenFolderArray"), folders}});
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("ScanEmail")), QVariant(false));
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("LogScans")), QVariant(true));
    EXPECT_EQ(u->readPreferenceForKey(QStringLiteral("AlertOnDetect")), QVariant(true));
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

TEST_F(QXUtilsPreferencesTest, CustomEnginePrefixIsTriedLastAndSetupRecordsTheFirstCandidateInTheAgentsDomain)
{
    home.writeDomain(companionDomain, {{QStringLiteral("PathToClamav"), QStringLiteral("/opt/engine")}});
    QXUtils *u = make();
    ASSERT_EQ(u->enginePathsArray().size(), 6);
    EXPECT_EQ(u->enginePathsArray().last(), QStringLiteral("/opt/engine"));
    EXPECT_EQ(u->updateLogPathsArray().last(), QStringLiteral("/tmp/freshclam.log"));

    u->setup();
    const QVariantMap own = home.readDomain(agentDomain);
    EXPECT_EQ(own.value(QStringLiteral("PathToClamav")).toString(), QStringLiteral("/usr/local/korvane"));
    EXPECT_EQ(own.value(QStringLiteral("PathToUpdateLog")).toString(),
              QStringLiteral("/usr/local/korvane/share/clamav/freshclam.log"));
}

TEST_F(QXUtilsPreferencesTest, ScanLogLivesUnderTheXdgStateFolderWhichIsCreated)
{
    EXPECT_EQ(make()->pathToScanLog(), home.stateHome() + QStringLiteral("/korvane/KorvaneVarden-scan.log"));
    EXPECT_TRUE(QFileInfo(home.stateHome() + QStringLiteral("/korvane")).isDir());
}

TEST_F(QXUtilsPreferencesTest, AValueOfAnotherTypeThanItsKeysIsReadAsItComesOrCountsAsAbsentAndIsLoggedOnceWithItsKey)
{
    const QVariantMap folder{{QStringLiteral("path"), QStringLiteral("~/Held")}};
    const QVariantList list{QStringLiteral("--one")};
    struct Case
    {
        const char *key;
        QVariant stored;
        QVariant read; // invalid: absent
    };
    const std::vector<Case> cases{
        // Hand-edited words and numbers read as booleans by their first letter or digit.
        {"UpdateDefsOnLaunch", QStringLiteral("YES"), true},
        {"LogScans", QStringLiteral("NO"), false},
        {"SuppressSummary", QStringLiteral(" no"), false},
        {"LogUpdates", QStringLiteral("true"), true},
        {"QuarantineInfected", QStringLiteral("-007"), true},
        {"SUEnableAutomaticChecks", 1, true},
        {"AlertOnDetect", 0, false},
        {"AlertOnCompletion", QVariantList{}, true},
        {"ScanEmail", false, false},
        {"AdditionalCmdLineArgs", list, QVariant()},
        {"AdditionalCmdLineArgs ", QStringLiteral(""), QStringLiteral("")},
        {"PathToClamav", 7, QVariant()},
        {"VardenFolderArray", QStringLiteral("~/Downloads"), QVariant()},
        {"ExcludePatterns", QVariantMap(), QXUtils::builtInDefaults().value(QStringLiteral("ExcludePatterns"))},
        {"QuarantineFolder", folder, folder},
        {"QuarantineFolder ", QStringLiteral("~/Held"), QStringLiteral("~/Held")},
        {"QuarantineFolder  ", list, QVariant()},
        {"rotateScanlogWhenSizeReaches", QStringLiteral("100"), QVariant()},
        {"rotateScanlogWhenSizeReaches ", 2.5, 2.5},
        {"ScheduleScanTime", true, QXUtils::builtInDefaults().value(QStringLiteral("ScheduleScanTime"))},
    };
    for (const Case &c : cases) {
        // A trailing blank only keeps the table's keys apart; it is not part of the key.
        const QString key = QString::fromLatin1(c.key).trimmed();
        SCOPED_TRACE(c.key);
        home.writeDomain(companionDomain, {{key, c.stored}});
        LogCapture log;
        utils.clear();
        QXUtils *u = make();
        EXPECT_EQ(u->readPreferenceForKey(key), c.read);
        EXPECT_EQ(u->readPreferenceForKey(key), c.read);
        EXPECT_EQ(log.lines().filter(key).size(), c.read.typeId() == c.stored.typeId() && c.read == c.stored ? 0 : 1)
            << qPrintable(log.lines().join('|'));
    }
}

} // namespace
