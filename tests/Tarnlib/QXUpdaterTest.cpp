#include "Tarnlib/Tarnlib/QXUpdater.h"
#include "Tarnlib/Tarnlib/QXUpdaterDelegate.h"

#include "tests/support/LogCapture.h"
#include "tests/support/QtPrinters.h"
#include "tests/support/ScriptedPrefix.h"

#include <QCoreApplication>
#include <QFile>
#include <QMutex>
#include <QTest>
#include <QThread>
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <utility>

namespace {

bool onMainThread()
{
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

// Stands in for the coordinator: answers the settings of one update and
// records its reports in order. Reports belong on the main thread and
// questions on the updater's; anything else is counted.
class RecordingUpdaterDelegate : public QXUpdaterDelegate
{
public:
    void updateStarted() override { report("updateStarted"); }
    void updateFinishedWithStatus(int status) override { report(QStringLiteral("finished:%1").arg(status)); }
    void updateProgressWithMessage(const QString &message) override { report("message:" + message); }
    void updateProgressWithPercentDone(double percent) override { report("percent:" + QString::number(percent)); }

    bool updaterNeedsExit1FreshclamFlag() const override { return asked(exit1); }
    void setUpdaterNeedsExit1FreshclamFlag(bool flag) override { exit1 = flag; }
    bool logUpdates() const override { return asked(logging); }
    QString enginePath() const override { return asked(engine); }
    QString updateLogPath() const override { return asked(logPath); }
    bool wantUpdatePercentages() const override { return asked(true); }

    QStringList takeReports()
    {
        QMutexLocker locker(&lock);
        return std::exchange(reports, {});
    }

    bool exit1 = false, logging = false;
    QString engine, logPath;
    mutable std::atomic_int wrongThread = 0;

private:
    template <typename T> T asked(const T &value) const
    {
        wrongThread += onMainThread() ? 1 : 0;
        return value;
    }
    void report(const QString &what)
    {
        wrongThread += onMainThread() ? 0 : 1;
        QMutexLocker locker(&lock);
        reports.append(what);
    }

    QMutex lock;
    QStringList reports;
};

// One updater on its own thread over a prefix whose launcher the test writes.
struct UpdaterRig
{
    UpdaterRig()
    {
        delegate.engine = prefix.path();
        updater.start();
    }

    void startUpdate()
    {
        done = std::make_shared<std::atomic_bool>(false);
        updater.perform([u = &updater, d = done] {
            u->runUpdate();
            *d = true;
        });
    }
    // Answers every report of the run once it has returned.
    QStringList finishUpdate()
    {
        EXPECT_TRUE(QTest::qWaitFor([&] { return done->load(); }, 60000));
        QCoreApplication::sendPostedEvents();
        return delegate.takeReports();
    }
    QStringList update()
    {
        startUpdate();
        return finishUpdate();
    }

    // A launcher that records its arguments, prints output, runs more and ends with status.
    void writeLauncher(const QByteArray &output, int status, const QByteArray &more = QByteArray())
    {
        const QString recorded = prefix.writeFile("recorded-output", output);
        prefix.writeScript("bin/RunFreshclam", "printf '%s\\n' \"$@\" > '" + prefix.filePath("arguments").toUtf8()
                                                   + "'\ncat '" + recorded.toUtf8() + "'\n" + more + "exit "
                                                   + QByteArray::number(status) + '\n');
    }
    QStringList recordedArguments() const
    {
        return QString::fromUtf8(prefix.readFile("arguments")).split('\n', Qt::SkipEmptyParts);
    }

    ScriptedPrefix prefix;
    RecordingUpdaterDelegate delegate;
    QXUpdater updater{&delegate};
    std::shared_ptr<std::atomic_bool> done;
};

// What freshclam printed, with the download lines of an update.
const QByteArray freshclamOutput =
    "ClamAV update process started at Mon Nov 23 10:00:00 2026\n"
    "daily.cvd database is up-to-date (version: 27000, sigs: 2070412, f-level: 90, builder: raynman)\n"
    "Downloading daily-27001.cdiff [100%]\n"
    "Downloading main.cvd [ 45%]\n"
    "Downloading x [  5%]\n"
    "x\n"
    "\n"
    "Downloading bytecode.cvd\n"
    "Downloading y [5\n"
    "main.cvd updated (version: 62, sigs: 6647427, f-level: 90, builder: sigmgr)\n";

const QStringList freshclamProgress{
    "message:ClamAV update process started at Mon Nov 23 10:00:00 2026",
    "message:daily.cvd database is up-to-date (version: 27000, sigs: 2070412, f-level: 90, builder: raynman)",
    "message:Downloading daily-27001.cdiff ",
    "percent:100",
    "message:Downloading main.cvd ",
    "percent:45",
    "message:Downloading x ",
    "percent:5",
    "message:Downloading bytecode.cvd",
    "message:Downloading y ",
    "message:main.cvd updated (version: 62, sigs: 6647427, f-level: 90, builder: sigmgr)",
};

} // namespace

// A download line without its percentage, or cut short, broke the progress shown.
TEST(QXUpdaterTest, LauncherOutputBecomesProgressAndItsStatusTheEnd)
{
    UpdaterRig rig;
    LogCapture log;
    for (int status : {0, 2}) {
        SCOPED_TRACE(status);
        rig.writeLauncher(freshclamOutput, status,
                          "echo 'WARNING: Can not connect to port 443 of host database.clamav.net' >&2\n");
        EXPECT_EQ(rig.update(), (QStringList{"updateStarted"} + freshclamProgress
                                 + QStringList{"percent:100", QStringLiteral("finished:%1").arg(status)}));
    }
    EXPECT_EQ(log.count("error:WARNING: Can not connect to port 443 of host database.clamav.net\n"), 2);
    EXPECT_EQ(rig.delegate.wrongThread, 0);
}

// A log path with blanks, or a setting changed between runs, gave the launcher wrong arguments.
TEST(QXUpdaterTest, ArgumentsFollowTheSettingsOfEachRunInTheirFixedOrder)
{
    const QString logPath = "/home/u/.local/state/korvane/freshclam update.log";
    const QString exit1 = "--on-update-execute=EXIT_1", log = "--log=" + logPath;
    const struct
    {
        bool exit1, logging;
        QStringList arguments;
    } cases[]{{false, false, {"--stdout"}},
              {true, false, {"--stdout", exit1}},
              {false, true, {"--stdout", log}},
              {true, true, {"--stdout", log, exit1}}};
    UpdaterRig rig;
    rig.writeLauncher("", 0);
    rig.delegate.logPath = logPath;
    for (const auto &c : cases) {
        SCOPED_TRACE(QStringLiteral("exit1 %1 logging %2").arg(int(c.exit1)).arg(int(c.logging)).toStdString());
        rig.delegate.exit1 = c.exit1;
        rig.delegate.logging = c.logging;
        rig.update();
        EXPECT_EQ(rig.recordedArguments(), c.arguments);
        EXPECT_EQ(rig.updater.needsExit1FreshclamFlag(), c.exit1);
    }
}

TEST(QXUpdaterTest, LauncherThatCannotStartEndsAsAFailedUpdate)
{
    UpdaterRig rig;
    LogCapture log;
    const QStringList failed{"updateStarted", "percent:100",
                             QStringLiteral("finished:%1").arg(QXUpdater::launcherNotStartedStatus)};
    EXPECT_EQ(rig.update(), failed);

    rig.writeLauncher("ClamAV update process started\n", 0);
    QFile::setPermissions(rig.prefix.filePath("bin/RunFreshclam"), QFile::ReadOwner);
    EXPECT_EQ(rig.update(), failed);
    EXPECT_TRUE(log.anyContains("error:"));
}

TEST(QXUpdaterTest, StopEndsTheRunningLauncherAsATerminatedUpdate)
{
    UpdaterRig rig;
    // Nothing runs yet: nothing to stop.
    rig.updater.stop();

    rig.prefix.writeScript("bin/RunFreshclam", "exec sleep 60\n");
    rig.startUpdate();
    ASSERT_TRUE(QTest::qWaitFor([&] { return rig.updater.hasChild(); }, 20000));
    rig.updater.stop();
    EXPECT_EQ(rig.finishUpdate(),
              (QStringList{"updateStarted", "percent:100", QStringLiteral("finished:%1").arg(SIGTERM)}));
}

TEST(QXUpdaterTest, LauncherThatFallsSilentIsEndedAsACrashedUpdate)
{
    UpdaterRig rig;
    LogCapture log;
    rig.updater.setSilenceLimit(std::chrono::milliseconds(300));
    // Talks a while, then hangs without a word.
    rig.writeLauncher("ClamAV update process started\n", 0,
                      "for i in 1 2 3 4 5; do echo \"Downloading main.cvd [ ${i}0%]\"; sleep 0.1; done\n"
                      "exec sleep 600\n");
    const QStringList reports = rig.update();
    ASSERT_FALSE(reports.isEmpty());
    EXPECT_EQ(reports.last(), QStringLiteral("finished:%1").arg(SIGTERM));
    EXPECT_EQ(reports.filter("percent:").size(), 6) << qPrintable(reports.join('|'));
    EXPECT_TRUE(log.anyContains("RunFreshclam gave no output for 0 s: ending it")) << qPrintable(log.lines().join('|'));
}
