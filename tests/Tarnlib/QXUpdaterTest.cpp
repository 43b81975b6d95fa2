#include "Tarnlib/Tarnlib/QXUpdater.h"
#include "Tarnlib/Tarnlib/QXUpdaterDelegate.h"
#include "platform/PropertyList.h"
#include "platform/SystemVersion.h"
#include "tests/support/ScriptedPrefix.h"
#include "tests/support/LogCapture.h"
#include "tests/support/QtPrinters.h"

#include <QCoreApplication>
#include <QFile>
#include <QMutex>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <utility>

namespace {

bool onMainThread()
{
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

// Stands in for the coordinator: answers the settings of one update and
// records its reports in order.
class RecordingUpdaterDelegate : public QXUpdaterDelegate
{
public:
    void updateStarted() override { report(QStringLiteral("updateStarted")); }
    void updateFinishedWithStatus(int status) override { report(QStringLiteral("finished:%1").arg(status)); }
    void updateProgressWithMessage(const QString &message) override { report(QStringLiteral("message:") + message); }
    void updateProgressWithPercentDone(double percent) override
    {
        report(QStringLiteral("percent:") + QString::number(percent));
    }

    bool updaterNeedsExit1FreshclamFlag() const override { return asked(exit1); }
    void setUpdaterNeedsExit1FreshclamFlag(bool flag) override { exit1 = flag; }
    bool logUpdates() const override { return asked(logging); }
    QString enginePath() const override { return asked(engine); }
    QString updateLogPath() const override { return asked(logPath); }
    bool wantUpdatePercentages() const override { return asked(wantPercentages); }

    QStringList takeReports()
    {
        QMutexLocker locker(&lock);
        return std::exchange(reports, {});
    }
    QStringList currentReports()
    {
        QMutexLocker locker(&lock);
        return reports;
    }

    bool exit1 = false;
    bool logging = false;
    QString engine;
    QString logPath;
    bool wantPercentages = true;
    std::atomic_int reportsOffMain = 0;
    mutable std::atomic_int questionsOnMain = 0;

private:
    template<typename T>
    T asked(const T &value) const
    {
        if (onMainThread())
            ++questionsOnMain;
        return value;
    }
    void report(const QString &what)
    {
        if (!onMainThread())
            ++reportsOffMain;
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
        updater = std::make_unique<QXUpdater>(&delegate);
        updater->start();
    }

    void startUpdate()
    {
        done = std::make_shared<std::atomic_bool>(false);
        updater->perform([u = updater.get(), d = done] {
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

    // A launcher that records its arguments, prints the given output and
    // ends with the given status.
    void writeLauncher(const QByteArray &output, int status, const QByteArray &more = QByteArray())
    {
        const QString recorded = prefix.writeFile(QStringLiteral("recorded-output"), output);
        prefix.writeScript(QStringLiteral("bin/RunFreshclam"),
                           "printf '%s\\n' \"$@\" > '" + prefix.filePath(QStringLiteral("arguments")).toUtf8()
                               + "'\ncat '" + recorded.toUtf8() + "'\n" + more + "exit "
                               + QByteArray::number(status) + '\n');
    }

    QStringList recordedArguments() const
    {
        return QString::fromUtf8(prefix.readFile(QStringLiteral("arguments"))).split('\n', Qt::SkipEmptyParts);
    }

    ScriptedPrefix prefix;
    RecordingUpdaterDelegate delegate;
    std::unique_ptr<QXUpdater> updater;
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

const QStringList freshclamProgress {
    QStringLiteral("message:ClamAV update process started at Mon Nov 23 10:00:00 2026"),
    QStringLiteral("message:daily.cvd database is up-to-date (version: 27000, sigs: 2070412, f-level: 90, "
                   "builder: raynman)"),
    QStringLiteral("message:Downloading daily-27001.cdiff "),
    QStringLiteral("percent:100"),
    QStringLiteral("message:Downloading main.cvd "),
    QStringLiteral("percent:45"),
    QStringLiteral("message:Downloading x "),
    QStringLiteral("percent:5"),
    QStringLiteral("message:Downloading bytecode.cvd"),
    QStringLiteral("message:Downloading y "),
    QStringLiteral("message:main.cvd updated (version: 62, sigs: 6647427, f-level: 90, builder: sigmgr)"),
};

// Points the system version at a file of the test's for as long as it lives.
class SystemVersionFile
{
public:
    explicit SystemVersionFile(const QString &version)
        : _saved(SystemVersion::path())
    {
        const QString path = _dir.filePath(QStringLiteral("SystemVersion.plist"));
        PropertyList::writeXmlFile(path, QVariantMap {{QStringLiteral("ProductVersion"), version}});
        SystemVersion::setPath(path);
    }
    ~SystemVersionFile() { SystemVersion::setPath(_saved); }

private:
    QTemporaryDir _dir;
    QString _saved;
};

char processState(const QByteArray &pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(QString::fromLatin1(pid.trimmed())));
    if (!stat.open(QIODevice::ReadOnly))
        return '?';
    const QByteArray line = stat.readAll();
    const qsizetype afterName = line.lastIndexOf(')');
    return afterName >= 0 && afterName + 2 < line.size() ? line.at(afterName + 2) : '?';
}

} // namespace

TEST(QXUpdaterTest, LauncherOutputBecomesProgressAndItsStatusTheEnd)
{
    UpdaterRig rig;
    LogCapture log;
    for (int status : {0, 1, 9, 2, 11}) {
        SCOPED_TRACE(status);
        rig.writeLauncher(freshclamOutput, status,
                          "echo 'WARNING: Can not connect to port 443 of host database.clamav.net' >&2\n");
        QStringList expected {QStringLiteral("updateStarted")};
        expected += freshclamProgress;
        expected += {QStringLiteral("percent:100"), QStringLiteral("finished:%1").arg(status)};
        EXPECT_EQ(rig.update(), expected);
    }
    EXPECT_EQ(log.count(QStringLiteral("error:WARNING: Can not connect to port 443 of host database.clamav.net\n")), 5);
    EXPECT_EQ(rig.delegate.reportsOffMain, 0);
    EXPECT_EQ(rig.delegate.questionsOnMain, 0);
}

TEST(QXUpdaterTest, ArgumentsFollowTheSettingsInTheirFixedOrder)
{
    const QString logPath = QStringLiteral("/home/u/.local/state/korvane/freshclam update.log");
    {
        UpdaterRig rig;
        rig.writeLauncher("", 0);
        rig.update();
        EXPECT_EQ(rig.recordedArguments(), QStringList {QStringLiteral("--stdout")});

        rig.delegate.exit1 = true;
        rig.update();
        EXPECT_EQ(rig.recordedArguments(),
                  (QStringList {QStringLiteral("--stdout"), QStringLiteral("--on-update-execute=EXIT_1")}));
        EXPECT_TRUE(rig.updater->needsExit1FreshclamFlag());

        rig.delegate.exit1 = false;
        rig.delegate.logging = true;
        rig.delegate.logPath = logPath;
        rig.update();
        EXPECT_EQ(rig.recordedArguments(), (QStringList {QStringLiteral("--stdout"), "--log=" + logPath}));
        EXPECT_FALSE(rig.updater->needsExit1FreshclamFlag());
    }
    {
        SystemVersionFile mavericks(QStringLiteral("10.9.5"));
        UpdaterRig rig;
        rig.writeLauncher("", 0);
        rig.update();
        EXPECT_EQ(rig.recordedArguments(), (QStringList {QStringLiteral("--stdout"), QStringLiteral("--no-dns")}));

        rig.delegate.exit1 = true;
        rig.delegate.logging = true;
        rig.delegate.logPath = logPath;
        rig.update();
        EXPECT_EQ(rig.recordedArguments(),
                  (QStringList {QStringLiteral("--stdout"), "--log=" + logPath,
                                QStringLiteral("--on-update-execute=EXIT_1"), QStringLiteral("--no-dns")}));
    }
}

TEST(QXUpdaterTest, DnsFixIsDecidedOnceFromTheSystemVersion)
{
    const QString logLine = QStringLiteral("running on 10.9 - we need the freshclam DNS fix. Booooo! If you see this "
                                           "and you're NOT running 10.9, please let me know - support@korvane.org");
    for (const auto &[version, fix] : {std::pair {"10.9", true}, {"10.9.5", true}, {"10.8", false},
                                       {"10.10", false}, {"", false}}) {
        SCOPED_TRACE(version);
        SystemVersionFile file(QString::fromLatin1(version));
        LogCapture log;
        RecordingUpdaterDelegate delegate;
        QXUpdater updater(&delegate);
        EXPECT_EQ(updater.needsDNSfix(), fix);
        EXPECT_EQ(log.count(logLine), fix ? 1 : 0);
    }
    // Without the file, as on Linux, the fix stays off.
    RecordingUpdaterDelegate delegate;
    QXUpdater updater(&delegate);
    EXPECT_FALSE(updater.needsDNSfix());
}

TEST(QXUpdaterTest, UnwantedProgressIsDrainedButNotRelayed)
{
    UpdaterRig rig;
    rig.delegate.wantPercentages = false;
    LogCapture log;
    // A megabyte on each stream fills any pipe that is not read.
    rig.writeLauncher(freshclamOutput, 1,
                      "head -c 1048576 /dev/zero | tr '\\0' a\n"
                      "head -c 1048576 /dev/zero | tr '\\0' b >&2\n"
                      "echo done >&2\n");
    EXPECT_EQ(rig.update(), (QStringList {QStringLiteral("updateStarted"), QStringLiteral("finished:1")}));
    EXPECT_FALSE(rig.updater->delegateWantsUpdates());
    EXPECT_TRUE(log.anyContains(QStringLiteral("done")));

    // The wish is asked again at every run.
    rig.delegate.wantPercentages = true;
    rig.writeLauncher("Downloading main.cvd [ 45%]\n", 0);
    EXPECT_EQ(rig.update(),
              (QStringList {QStringLiteral("updateStarted"), QStringLiteral("message:Downloading main.cvd "),
                            QStringLiteral("percent:45"), QStringLiteral("percent:100"),
                            QStringLiteral("finished:0")}));
}

TEST(QXUpdaterTest, LauncherThatCannotStartEndsAsAFailedUpdate)
{
    UpdaterRig rig;
    LogCapture log;
    const QStringList failed {QStringLiteral("updateStarted"), QStringLiteral("percent:100"),
                              QStringLiteral("finished:%1").arg(QXUpdater::launcherNotStartedStatus)};
    EXPECT_EQ(rig.update(), failed);

    rig.writeLauncher("ClamAV update process started\n", 0);
    QFile::setPermissions(rig.prefix.filePath(QStringLiteral("bin/RunFreshclam")), QFile::ReadOwner);
    EXPECT_EQ(rig.update(), failed);
    EXPECT_TRUE(log.anyContains(QStringLiteral("error:")));

    // Not wanting progress only drops the 100.
    rig.delegate.wantPercentages = false;
    EXPECT_EQ(rig.update(), (QStringList {failed.first(), failed.last()}));
}

TEST(QXUpdaterTest, PauseSuspendsAndResumesTheLauncherAndStopEndsIt)
{
    UpdaterRig rig;
    // Nothing runs yet: nothing to pause or stop.
    EXPECT_FALSE(rig.updater->pause());
    rig.updater->stop();

    rig.prefix.writeScript(QStringLiteral("bin/RunFreshclam"),
                           "echo $$ > '" + rig.prefix.filePath(QStringLiteral("pid")).toUtf8()
                               + "'\nexec sleep 60\n");
    rig.startUpdate();
    QByteArray pid;
    ASSERT_TRUE(QTest::qWaitFor([&] {
        pid = rig.prefix.readFile(QStringLiteral("pid"));
        return pid.endsWith('\n') && rig.updater->hasChild();
    }, 20000));

    EXPECT_FALSE(rig.updater->resumeUpdate());
    EXPECT_TRUE(rig.updater->pause());
    EXPECT_TRUE(QTest::qWaitFor([&] { return processState(pid) == 'T'; }, 10000));
    EXPECT_FALSE(rig.updater->suspendUpdate());
    EXPECT_FALSE(rig.updater->pause());
    EXPECT_TRUE(QTest::qWaitFor([&] { return processState(pid) == 'S'; }, 10000));

    rig.updater->stop();
    EXPECT_EQ(rig.finishUpdate(),
              (QStringList {QStringLiteral("updateStarted"), QStringLiteral("percent:100"),
                            QStringLiteral("finished:%1").arg(SIGTERM)}));
}
