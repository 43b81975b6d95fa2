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

QVariantList watching(const QStringList &folders)
{
    QVariantList records;
    for (const QString &folder : folders)
        records << QVariantMap{{"pathName", folder}, {"WatchSubdirs", true}};
    return records;
}

// Settings that would leave files unscanned without a sign are refused on
// every road that saves, and the file on disk stays as it was.
TEST_F(CompanionSettingsTest, SettingsThatSwitchTheGuardOffAreRefusedWithTheReason)
{
    for (const char *folder : {"crowbar/Documents/q", "scans", "w", "wx", "Quarantine"})
        makeFolder(folder);
    const auto exclude = [&](const char *pattern, bool regEx) {
        return [=, this] { addExclusionRow(control<QTableWidget>("exclusions"), pattern, regEx); };
    };
    const auto setText = [&](const char *name, const char *text) {
        return [=, this] { control<QLineEdit>(name)->setText(text); };
    };
    const auto addFolder = [&](const char *folder) {
        return [=, this] {
            window->setFolderChooser(
                [this, folder](QWidget *, const QString &, const QString &) { return home->filePath(folder); });
            click(window.get(), "addFolder");
        };
    };
    const QVariantMap crowbar{{"VardenFolderArray", watching({"~/crowbar/Documents"})}};
    const QVariantMap scansExcluded{
        {"VardenFolderArray", watching({"~/crowbar/Documents"})},
        {"ExcludePatterns", QVariantList{QVariantMap{{"excludePattern", "SCANS"}, {"excludeEnabled", true}}}}};
    const QVariantMap quarantined{{"VardenFolderArray", watching({"~/w"})}, {"QuarantineFolder", "~/Quarantine"}};
    const QVariantMap handEditedArguments{{"VardenFolderArray", watching({"~/w"})},
                                          {"AdditionalCmdLineArgs", "--verbose --copy=/tmp/x"}};

    struct Row
    {
        const char *what;
        QVariantMap stored;
        std::function<void()> inWindow;
        QStringList commandLine;
        const char *refusal; // nullptr: saved
    };
    const QList<Row> rows{
        {"literal text found in the folder's path", crowbar, exclude("bar", false), {}, "“bar” matches the watched"},
        {"a folder added in the window", crowbar, addFolder("scans"), {}, nullptr},
        {"expression matching a new folder with its /",
         crowbar,
         [&] {
             addFolder("scans")();
             exclude(".*/scans/", true)();
         },
         {},
         "matches the watched folder"},
        {"invalid expression", crowbar, exclude("([a-z]", true), {}, "not a valid regular expression"},
        {"the same text taken literally", crowbar, exclude("([a-z]", false), {}, nullptr},
        {"disabled defaults and a pattern for files", crowbar, exclude(".*\\.iso", true), {}, nullptr},
        {"adding a folder an exclusion covers", scansExcluded, {}, {"--add-folder", "~/scans"}, "“SCANS” matches"},
        {"quarantine inside a watched folder",
         crowbar,
         setText("QuarantineFolder", "~/crowbar/Documents/q"),
         {},
         "lies inside the watched folder"},
        {"quarantine is a watched folder",
         crowbar,
         setText("QuarantineFolder", "~/crowbar/Documents/"),
         {},
         "is the watched folder"},
        {"quarantine above a watched folder",
         crowbar,
         setText("QuarantineFolder", "~/crowbar"),
         {},
         "holds the watched folder"},
        {"relative quarantine", crowbar, setText("QuarantineFolder", "Quarantine"), {}, "absolute"},
        {"missing quarantine", crowbar, setText("QuarantineFolder", "~/no such folder"), {}, "does not exist"},
        {"quarantine beside a watched folder", quarantined, setText("QuarantineFolder", "~/wx"), {}, nullptr},
        {"watching the quarantine's parent", quarantined, {}, {"--add-folder", "~"}, "lies inside the watched folder"},
        {"scanner removes files", crowbar, setText("AdditionalCmdLineArgs", "--remove"), {}, "own actions"},
        {"scanner moves files", crowbar, setText("AdditionalCmdLineArgs", "-v --move=/tmp/x"), {}, "own actions"},
        {"unknown option", crowbar, setText("AdditionalCmdLineArgs", "--bogus"), {}, "“--bogus” is not"},
        {"scanner told to stay quiet", crowbar, setText("AdditionalCmdLineArgs", "--quiet"), {}, "--quiet"},
        {"options clamdscan knows", crowbar, setText("AdditionalCmdLineArgs", "-v --log=/tmp/x -l y -i"), {}, nullptr},
        {"hand-edited copying", handEditedArguments, {}, {"--add-folder", "~/scans"}, "own actions"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        SCOPED_TRACE(row.refusal ? row.refusal : "saved");
        home->writeDomain(companionDomain, row.stored);
        const QByteArray onDisk = TemporaryHome::readFile(CompanionSettings::domainPath());
        alerts.alerts.clear();
        QString message;
        bool saved = false;
        if (row.commandLine.isEmpty()) {
            PreferencesWindow *w = openWindow();
            row.inWindow();
            saved = w->save();
            if (!alerts.alerts.isEmpty())
                message = alerts.alerts[0].informativeText;
            EXPECT_LE(alerts.alerts.size(), 1);
        } else {
            saved = runKorvane(row.commandLine, &message) == 0;
        }
        if (row.refusal) {
            EXPECT_FALSE(saved);
            EXPECT_TRUE(message.contains(QString::fromUtf8(row.refusal))) << message.toStdString();
            EXPECT_EQ(TemporaryHome::readFile(CompanionSettings::domainPath()), onDisk);
        } else {
            EXPECT_TRUE(saved) << message.toStdString();
        }
        // The store's buffer outlives the window; a refused change must not reach the next row.
        if (settings)
            settings->revert();
        window.reset();
        settings.reset();
    }
}

TEST_F(CompanionSettingsTest, FirstRunWatchesTheDownloadsFolderOnceAndNeverOverwrites)
{
    // Settings it cannot read, or without folders, are the user's: left alone, no login entry. The unreadable
    // file comes last: the store keeps an unreadable domain in memory, which would hide a fault in the other row.
    for (const QByteArray &contents : {QByteArray("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>"),
                                       QByteArray("this is not a property list")}) {
        const QString path = home->writeFile(".config/org.korvane.Korvane.plist", contents);
        bool ok = false;
        CompanionApplication::firstRun(&ok);
        EXPECT_EQ(TemporaryHome::readFile(path), contents);
        EXPECT_FALSE(LoginItem::isEnabled());
        QFile::remove(path);
    }

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
