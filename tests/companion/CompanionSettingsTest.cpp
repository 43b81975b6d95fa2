#include "CompanionFixture.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "companion/CompanionApplication.h"
#include "companion/LoginItem.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/PropertyList.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"

#include <QFileInfo>
#include <QPushButton>
#include <QTest>

namespace {

const QString companionDomain = QStringLiteral(KORVANE_COMPANION_ID);

void click(QWidget *window, const char *name)
{
    auto *button = window->findChild<QPushButton *>(QLatin1String(name));
    ASSERT_NE(button, nullptr) << name;
    button->click();
}

void addExclusionRow(QTableWidget *table, const QString &pattern, bool regEx, const QString &comment = {})
{
    const int row = table->rowCount();
    table->insertRow(row);
    for (int column : {0, 2}) {
        auto *item = new QTableWidgetItem;
        item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable);
        item->setCheckState(column == 0 || regEx ? Qt::Checked : Qt::Unchecked);
        table->setItem(row, column, item);
    }
    table->setItem(row, 1, new QTableWidgetItem(pattern));
    table->setItem(row, 3, new QTableWidgetItem(comment));
}

// What the agent makes of the settings: a QXUtils of the agent's own, over
// a store of the agent's own, reading the files as they are on disk.
struct AgentView
{
    AgentView()
    {
        BundleInfo::setBundleIdentifier(QStringLiteral(KORVANE_AGENT_ID));
        UserDefaults::setStandardUserDefaults(&store);
        UserDefaultsController::setSharedUserDefaultsController(&controller);
        utils = std::make_unique<QXUtils>(nullptr, QList<QXUtils::EngineCandidate>{});
    }
    ~AgentView()
    {
        utils.reset();
        UserDefaultsController::setSharedUserDefaultsController(nullptr);
        UserDefaults::setStandardUserDefaults(nullptr);
        BundleInfo::setBundleIdentifier(BundleInfo::companionIdentifier());
    }
    UserDefaults store{QStringLiteral(KORVANE_AGENT_ID)};
    UserDefaultsController controller{&store};
    std::unique_ptr<QXUtils> utils;
};

using CompanionSettingsTest = CompanionFixture;

TEST_F(CompanionSettingsTest, SettingsSavedInTheWindowAreTheOnesTheAgentReadsWithTheSameKeysAndTypes)
{
    const QString downloads = makeFolder("Downloads");
    const QString media = makeFolder("media stick");
    const QString quarantine = makeFolder("Quarantine");
    PreferencesWindow *w = openWindow();
    int chosen = 0;
    w->setFolderChooser([&](QWidget *, const QString &, const QString &) {
        return QStringList{downloads, media, quarantine}.value(chosen++);
    });
    click(w, "addFolder");
    click(w, "addFolder");
    click(w, "moveFolderUp");
    auto *table = control<QTableWidget>("exclusions");
    table->setRowCount(0);
    addExclusionRow(table, "/Private/", false, "my letters");
    addExclusionRow(table, ".*\\.iso", true);
    click(w, "chooseQuarantineFolder");
    control<QCheckBox>("ScanEmail")->setChecked(false);
    control<QCheckBox>("QuarantineInfected")->setChecked(true);
    control<QCheckBox>("LogScans")->setChecked(false);
    control<QCheckBox>("SuppressSummary")->setChecked(true);
    control<QLineEdit>("AdditionalCmdLineArgs")->setText(" --fdpass   --multiscan ");
    control<QCheckBox>("LogUpdates")->setChecked(false);
    control<QCheckBox>("UpdateDefsOnLaunch")->setChecked(true);
    control<QSpinBox>("rotateScanlogWhenSizeReaches")->setValue(700);
    control<QCheckBox>("SUEnableAutomaticChecks")->setChecked(true);
    QObject agentSide;
    QStringList restarts;
    DistributedNotificationCenter::defaultCenter()->addObserver(&agentSide, "KorvaneVardenShouldRestart",
                                                                [&](const QString &object) { restarts << object; });
    ASSERT_TRUE(w->save());
    EXPECT_TRUE(alerts.alerts.isEmpty());
    EXPECT_TRUE(QTest::qWaitFor([&] { return restarts == QStringList{"Korvane"}; }, 5000))
        << "the agent is asked to pick the settings up";
    DistributedNotificationCenter::defaultCenter()->removeObserver(&agentSide);

    bool isNumber = false;
    EXPECT_EQ(home->readDomain(companionDomain).value("rotateScanlogWhenSizeReaches").toLongLong(&isNumber), 700);
    EXPECT_TRUE(isNumber);

    AgentView agent;
    QXUtils &u = *agent.utils;
    QStringList watched;
    for (const QVariant &record : u.readPreferenceForKey("VardenFolderArray").toList())
        watched << record.toMap().value("pathName").toString();
    EXPECT_EQ(watched, (QStringList{"~/media stick", "~/Downloads"}));
    const QList<std::pair<const char *, QVariant>> values{
        {"ScanEmail", false},
        {"QuarantineInfected", true},
        {"LogScans", false},
        {"SuppressSummary", true},
        {"LogUpdates", false},
        {"UpdateDefsOnLaunch", true},
        {"SUEnableAutomaticChecks", true},
        {"AdditionalCmdLineArgs", QStringLiteral("--fdpass --multiscan")},
    };
    for (const auto &[key, value] : values)
        EXPECT_EQ(u.readPreferenceForKey(QLatin1String(key)), value) << key;

    // And what the agent does with them at a scan's start.
    u.determineQuarantineSettings();
    EXPECT_TRUE(u.quarantineFiles());
    EXPECT_EQ(u.quarantineLocation(), quarantine);
    u.determineWhatToExcludeFromThisScan();
    EXPECT_FALSE(u.scanEmailFiles());
    const QStringList batch{downloads + "/private/a.txt", downloads + "/disk.iso", downloads + "/disk.iso.txt"};
    EXPECT_EQ(u.leaveExcludedPathsOutOfBatch(batch), QStringList{downloads + "/disk.iso.txt"});
}

TEST_F(CompanionSettingsTest, AnInvalidRegularExpressionIsRefusedWithAClearMessageAndNothingIsSaved)
{
    home->writeDomain(companionDomain, {{"ScanEmail", true}});
    QFile original(CompanionSettings::domainPath());
    ASSERT_TRUE(original.open(QIODevice::ReadOnly));
    const QByteArray onDisk = original.readAll();
    original.close();

    struct Row
    {
        const char *pattern;
        bool regEx;
        bool saved;
    };
    for (const Row &row : {Row{"([a-z]", true, false}, Row{"*.iso", true, false}, Row{"([a-z]", false, true},
                           Row{"^/media/.*\\.exe$", true, true}}) {
        SCOPED_TRACE(row.pattern);
        alerts.alerts.clear();
        PreferencesWindow *w = openWindow();
        control<QCheckBox>("ScanEmail")->setChecked(false);
        addExclusionRow(control<QTableWidget>("exclusions"), row.pattern, row.regEx);
        EXPECT_EQ(w->save(), row.saved);
        if (row.saved) {
            EXPECT_TRUE(alerts.alerts.isEmpty());
            const QVariantList records = home->readDomain(companionDomain).value("ExcludePatterns").toList();
            ASSERT_FALSE(records.isEmpty());
            EXPECT_EQ(records.last().toMap().value("excludePattern"), QString::fromLatin1(row.pattern));
        } else {
            ASSERT_EQ(alerts.alerts.size(), 1);
            EXPECT_TRUE(alerts.alerts[0].informativeText.contains("not a valid regular expression"))
                << alerts.alerts[0].informativeText.toStdString();
            EXPECT_TRUE(alerts.alerts[0].informativeText.contains(QLatin1String(row.pattern)));
            QFile file(CompanionSettings::domainPath());
            ASSERT_TRUE(file.open(QIODevice::ReadOnly));
            EXPECT_EQ(file.readAll(), onDisk) << "the other changes are not saved either";
        }
        window.reset();
        settings.reset();
        QFile reset(CompanionSettings::domainPath());
        ASSERT_TRUE(reset.open(QIODevice::WriteOnly));
        reset.write(onDisk);
    }
}

TEST_F(CompanionSettingsTest, AQuarantineFolderThatDoesNotExistIsRefused)
{
    PreferencesWindow *w = openWindow();
    control<QLineEdit>("QuarantineFolder")->setText("~/no such folder");
    EXPECT_FALSE(w->save());
    ASSERT_EQ(alerts.alerts.size(), 1);
    EXPECT_TRUE(alerts.alerts[0].informativeText.contains("does not exist"));
    EXPECT_FALSE(CompanionSettings::domainExists());
}

TEST_F(CompanionSettingsTest, FirstRunWatchesTheDownloadsFolderOnceAndNeverOverwrites)
{
    // The user's Downloads folder is where the desktop says it is.
    home->writeFile(".config/user-dirs.dirs", "XDG_DOWNLOAD_DIR=\"$HOME/Téléchargements\"\n");
    bool ok = false;
    CompanionApplication::firstRun(&ok);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(QFileInfo(home->filePath("Téléchargements")).isDir());
    {
        CompanionSettings s;
        EXPECT_EQ(s.watchedFolders(), QStringList{"~/Téléchargements"});
    }
    EXPECT_TRUE(LoginItem::isEnabled());

    // Changed settings and a login entry the user removed stay as they are.
    const QString other = makeFolder("Work");
    {
        CompanionSettings s;
        ASSERT_TRUE(s.removeWatchedFolder("~/Téléchargements"));
        ASSERT_TRUE(s.addWatchedFolder(other));
        ASSERT_TRUE(s.save());
    }
    ASSERT_TRUE(LoginItem::setEnabled(false, {}));
    const QString line = CompanionApplication::firstRun(&ok);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(line.contains(CompanionSettings::domainPath()));
    EXPECT_EQ(CompanionSettings().watchedFolders(), QStringList{"~/Work"});
    EXPECT_FALSE(LoginItem::isEnabled());
}

TEST_F(CompanionSettingsTest, FirstRunLeavesSettingsAloneThatItCannotReadOrThatHaveNoFolders)
{
    for (const QByteArray &contents : {QByteArray("this is not a property list"),
                                       QByteArray("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>")}) {
        const QString path = home->writeFile(".config/org.korvane.Korvane.plist", contents);
        bool ok = false;
        CompanionApplication::firstRun(&ok);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_EQ(file.readAll(), contents);
        EXPECT_FALSE(LoginItem::isEnabled());
    }
}

TEST_F(CompanionSettingsTest, FoldersAreAddedOnceAndOnlyExistingOnesAndRemovedByAnySpelling)
{
    const QString photos = makeFolder("Photos");
    CompanionSettings s;
    QString error;
    EXPECT_TRUE(s.addWatchedFolder(photos + "/", &error));
    EXPECT_FALSE(s.addWatchedFolder("~/Photos", &error));
    EXPECT_TRUE(error.contains("watched already"));
    EXPECT_FALSE(s.addWatchedFolder(home->filePath("missing"), &error));
    EXPECT_TRUE(error.contains("is not a folder"));
    EXPECT_EQ(s.watchedFolders(), QStringList{"~/Photos"});
    EXPECT_FALSE(s.removeWatchedFolder("~/Other", &error));
    EXPECT_TRUE(s.removeWatchedFolder(photos, &error));
    EXPECT_TRUE(s.watchedFolders().isEmpty());
}

} // namespace
