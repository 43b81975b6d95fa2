#include "CompanionFixture.h"
#include "companion/ScheduledScan.h"
#include "platform/UserServiceManager.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QListWidget>
#include <QPushButton>
#include <QStandardPaths>
#include <QTest>

namespace {

// No user manager runs here: this one keeps what systemctl was asked.
class RecordingServiceManager : public UserServiceManager
{
public:
    RecordingServiceManager() { UserServiceManager::setSharedManager(this); }
    ~RecordingServiceManager() override { UserServiceManager::setSharedManager(nullptr); }
    bool isRunning() override { return running; }
    bool control(const QStringList &arguments, QString *) override
    {
        calls << arguments.join(QLatin1Char(' '));
        return true;
    }
    bool running = true;
    QStringList calls;
};

const QString korvane = QStringLiteral(KORVANE_BINARY_DIR "/bin/Korvane");

QString lineOf(const QString &path, const QString &key)
{
    for (const QString &line : QString::fromUtf8(TemporaryHome::readFile(path)).split(QLatin1Char('\n'))) {
        if (line.startsWith(key + QLatin1Char('=')))
            return line.mid(key.size() + 1);
    }
    return {};
}

// systemd's own reading of the units, where systemd-analyze is installed.
QString systemdObjects(const QString &timer)
{
    const QString analyze = QStandardPaths::findExecutable(QStringLiteral("systemd-analyze"));
    if (analyze.isEmpty())
        return {};
    QProcess verify;
    verify.setProcessChannelMode(QProcess::MergedChannels);
    verify.start(analyze, {QStringLiteral("verify"), QStringLiteral("--man=no"), timer});
    verify.waitForFinished(20000);
    const QString said = QString::fromUtf8(verify.readAll());
    return verify.exitCode() == 0 ? QString() : said.isEmpty() ? QStringLiteral("failed") : said;
}

class ScheduledScanTest : public CompanionFixture
{
protected:
    PreferencesWindow *openScheduleWindow(const QStringList &chosen = {})
    {
        PreferencesWindow *w = openWindow(QStringLiteral(KORVANE_BINARY_DIR "/bin/KorvaneVarden"));
        w->setFolderChooser([chosen, i = 0](QWidget *, const QString &, const QString &) mutable {
            return i < chosen.size() ? chosen[i++] : QString();
        });
        return w;
    }
    void schedule(const QStringList &folders, int weekday, int hour)
    {
        control<QCheckBox>("ScheduledScanEnabled")->setChecked(true);
        auto *list = control<QListWidget>("ScheduledScanFolders");
        list->clear();
        list->addItems(folders);
        control<QComboBox>("ScheduledScanWeekday")->setCurrentIndex(weekday);
        control<QSpinBox>("ScheduledScanHour")->setValue(hour);
    }
    QByteArray units() const
    {
        return TemporaryHome::readFile(ScheduledScan::servicePath())
               + TemporaryHome::readFile(ScheduledScan::timerPath());
    }
    RecordingServiceManager manager;
};

TEST_F(ScheduledScanTest, TheChosenScheduleBecomesATimerAndServiceThatScanTheFoldersAsSystemdReadsThem)
{
    const QString plain = makeFolder("Downloads");
    const QString spaced = makeFolder("My Files");
    const QString odd = makeFolder("100% \"sure\" $HOME \\ %h");
    const QString lines = makeFolder("two\nlines");
    struct Row
    {
        const char *name;
        QStringList folders;
        int weekday;
        int hour;
        QString calendar;
        QString exec;
    };
    const QString prefix = QLatin1Char('"') + korvane + QStringLiteral("\" --scan --notify ");
    const QString home = QDir::cleanPath(this->home->path());
    const Row rows[] = {
        {"daily, a folder written with ~",
         {QStringLiteral("~/Downloads")},
         0,
         3,
         QStringLiteral("*-*-* 03:00:00"),
         prefix + QLatin1Char('"') + plain + QLatin1Char('"')},
        {"weekly on Sunday, blanks, quotes, % and $",
         {spaced, odd},
         7,
         23,
         QStringLiteral("Sun *-*-* 23:00:00"),
         prefix + QStringLiteral("\"%1/My Files\" \"%1/100%% \\\"sure\\\" $$HOME \\\\ %%h\"").arg(home)},
        {"weekly on Monday at midnight, a newline in a name",
         {lines},
         1,
         0,
         QStringLiteral("Mon *-*-* 00:00:00"),
         prefix + QStringLiteral("\"%1/two\\nlines\"").arg(home)},
    };
    PreferencesWindow *w = openScheduleWindow();
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        manager.calls.clear();
        schedule(row.folders, row.weekday, row.hour);
        ASSERT_TRUE(w->save()) << qPrintable(alerts.alerts.isEmpty() ? QString()
                                                                     : alerts.alerts.last().informativeText);
        EXPECT_EQ(lineOf(ScheduledScan::timerPath(), QStringLiteral("OnCalendar")), row.calendar);
        EXPECT_EQ(lineOf(ScheduledScan::timerPath(), QStringLiteral("Persistent")), QStringLiteral("true"));
        EXPECT_EQ(lineOf(ScheduledScan::servicePath(), QStringLiteral("ExecStart")), row.exec);
        EXPECT_EQ(lineOf(ScheduledScan::servicePath(), QStringLiteral("ConditionACPower")), QStringLiteral("true"));
        EXPECT_EQ(systemdObjects(ScheduledScan::timerPath()), QString());
        EXPECT_EQ(manager.calls,
                  (QStringList{QStringLiteral("daemon-reload"), QStringLiteral("enable korvane-scheduled-scan.timer"),
                               QStringLiteral("restart korvane-scheduled-scan.timer")}));
    }

    // Saving other settings leaves a running timer alone.
    manager.calls.clear();
    ASSERT_TRUE(w->save());
    EXPECT_EQ(manager.calls, QStringList());

    // Nothing scheduled: the timer is stopped and disabled, the files go.
    control<QCheckBox>("ScheduledScanEnabled")->setChecked(false);
    ASSERT_TRUE(w->save());
    EXPECT_EQ(manager.calls, (QStringList{QStringLiteral("disable --now korvane-scheduled-scan.timer"),
                                          QStringLiteral("daemon-reload")}));
    EXPECT_FALSE(QFileInfo::exists(ScheduledScan::timerPath()));
    EXPECT_FALSE(QFileInfo::exists(ScheduledScan::servicePath()));
    EXPECT_FALSE(CompanionSettings().scheduledScan().enabled);
}

TEST_F(ScheduledScanTest, WithoutAUserManagerTheTimerIsEnabledForTheNextLoginAndTheUserIsTold)
{
    manager.running = false;
    const QString folder = makeFolder("Downloads");
    PreferencesWindow *w = openScheduleWindow();
    schedule({folder}, 0, 12);
    ASSERT_TRUE(w->save());
    EXPECT_EQ(manager.calls, QStringList());
    const QFileInfo wants(home->configHome()
                          + QStringLiteral("/systemd/user/timers.target.wants/"
                                           "korvane-scheduled-scan.timer"));
    EXPECT_EQ(wants.symLinkTarget(), ScheduledScan::timerPath());
    ASSERT_EQ(alerts.alerts.size(), 1);
    EXPECT_TRUE(alerts.alerts[0].informativeText.contains(QStringLiteral("next login")));

    control<QCheckBox>("ScheduledScanEnabled")->setChecked(false);
    ASSERT_TRUE(w->save());
    EXPECT_FALSE(wants.isSymLink());
    EXPECT_FALSE(QFileInfo::exists(ScheduledScan::timerPath()));
}

TEST_F(ScheduledScanTest, EscapeOrCloseDropsScheduleEditsAndLeavesTheUnitsAsTheyWere)
{
    const QString saved = makeFolder("Saved");
    const QString other = makeFolder("Other");
    PreferencesWindow *w = openScheduleWindow();
    schedule({saved}, 2, 4);
    ASSERT_TRUE(w->save());
    const QByteArray before = units();
    ASSERT_FALSE(before.isEmpty());

    for (const char *how : {"Escape", "Close"}) {
        SCOPED_TRACE(how);
        manager.calls.clear();
        w->present();
        schedule({other}, 0, 20);
        if (QByteArray(how) == "Escape")
            QTest::keyClick(control<QSpinBox>("ScheduledScanHour"), Qt::Key_Escape);
        else
            w->findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Close)->click();
        EXPECT_FALSE(w->isVisible());
        EXPECT_EQ(units(), before);
        EXPECT_EQ(manager.calls, QStringList());
        w->present();
        EXPECT_EQ(control<QSpinBox>("ScheduledScanHour")->value(), 4);
        EXPECT_EQ(control<QListWidget>("ScheduledScanFolders")->item(0)->text(), CompanionSettings::abbreviated(saved));
    }

    // Edits that a refused save took in are dropped by Escape all the same.
    schedule({other}, 0, 20);
    control<QLineEdit>("QuarantineFolder")->setText(QStringLiteral("relative"));
    ASSERT_FALSE(w->save());
    QTest::keyClick(w, Qt::Key_Escape);
    w->present();
    EXPECT_EQ(control<QSpinBox>("ScheduledScanHour")->value(), 4);
    EXPECT_EQ(control<QLineEdit>("QuarantineFolder")->text(), QString());
    control<QCheckBox>("ScheduledScanEnabled")->setChecked(false);
    ASSERT_TRUE(w->save());
    EXPECT_FALSE(ScheduledScan::isWritten());
    EXPECT_FALSE(CompanionSettings().value(QStringLiteral("QuarantineFolder")).isValid());
}

TEST_F(ScheduledScanTest, ACarelessScheduleIsRefusedWithTheReasonAndChangesNothing)
{
    const QString folder = makeFolder("Downloads");
    struct Row
    {
        const char *name;
        ScheduledScan::Schedule schedule;
        QString reason;
    };
    const Row rows[] = {
        {"an hour of 25", {true, {folder}, 0, 25}, QStringLiteral("from 0 to 23, not 25")},
        {"a negative hour", {true, {folder}, 0, -1}, QStringLiteral("from 0 to 23, not -1")},
        {"a weekday of 8", {true, {folder}, 8, 3}, QStringLiteral("(1 to 7), not 8")},
        {"no folder", {true, {}, 0, 3}, QStringLiteral("needs at least one folder")},
        {"a relative folder", {true, {QStringLiteral("Downloads")}, 0, 3}, QStringLiteral("“Downloads”")},
        {"a missing folder", {true, {folder + QStringLiteral("/gone")}, 0, 3}, QStringLiteral("does not exist")},
    };
    PreferencesWindow *w = openScheduleWindow();
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        QString error;
        EXPECT_FALSE(settings->setScheduledScan(row.schedule, &error));
        EXPECT_TRUE(error.contains(row.reason)) << qPrintable(error);
        EXPECT_FALSE(ScheduledScan::apply(row.schedule, korvane, &error));
        EXPECT_TRUE(error.contains(row.reason)) << qPrintable(error);
    }
    EXPECT_FALSE(ScheduledScan::isWritten());

    // In the window: no folder, and a folder typed as a relative path.
    for (const QStringList &folders : {QStringList{}, QStringList{QStringLiteral("Downloads")}}) {
        alerts.alerts.clear();
        schedule(folders, 0, 3);
        EXPECT_FALSE(w->save());
        ASSERT_EQ(alerts.alerts.size(), 1);
        EXPECT_EQ(alerts.alerts[0].messageText, QStringLiteral("The scheduled scan cannot be saved."));
        EXPECT_FALSE(ScheduledScan::isWritten());
        EXPECT_FALSE(CompanionSettings().scheduledScan().enabled);
    }
    EXPECT_EQ(manager.calls, QStringList());

    // An hour of 25 edited into the settings file is refused at the next save.
    home->writeDomain(QStringLiteral(KORVANE_COMPANION_ID),
                      {{QStringLiteral("ScheduledScanEnabled"), true},
                       {QStringLiteral("ScheduledScanFolders"), QVariantList{folder}},
                       {QStringLiteral("ScheduledScanHour"), 25}});
    CompanionSettings edited;
    QString error;
    EXPECT_FALSE(edited.save(&error));
    EXPECT_TRUE(error.contains(QStringLiteral("not 25"))) << qPrintable(error);
}

} // namespace
