#include "Tarnlib/Tarnlib/QXEngineChecker.h"
#include "Tarnlib/Tarnlib/QXEngineCheckerDelegate.h"
#include "platform/BundleInfo.h"
#include "platform/ProcessList.h"
#include "platform/PropertyList.h"
#include "tests/support/ScriptedPrefix.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/LogCapture.h"
#include "tests/support/QtPrinters.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QMutex>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QTest>
#include <QThread>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

bool onMainThread()
{
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

// Stands in for the coordinator: answers the engine path, keeps what the
// checker sets and records the reports in order, noting any that arrive on
// the wrong thread.
class RecordingCheckerDelegate : public QXEngineCheckerDelegate
{
public:
    void engineNotFound() override { report(QStringLiteral("engineNotFound")); }
    void engineCheckFailedTryAgain() override { report(QStringLiteral("engineCheckFailedTryAgain")); }
    void engineFoundWithVersionString(const QString &version) override
    {
        report(QStringLiteral("engineFoundWithVersionString:") + version);
    }
    void needToUpdateDB() override { report(QStringLiteral("needToUpdateDB")); }
    void needToUpdateEngine() override { report(QStringLiteral("needToUpdateEngine")); }
    void clamdStarted() override { report(QStringLiteral("clamdStarted")); }
    void clamdFailedToStart() override { report(QStringLiteral("clamdFailedToStart")); }

    bool updaterNeedsExit1FreshclamFlag() const override { return exit1.value_or(false); }
    void setUpdaterNeedsExit1FreshclamFlag(bool flag) override
    {
        setterCalled();
        exit1 = flag;
    }
    bool engineSupportsFileListFlag() const override { return fileList.value_or(false); }
    void setEngineSupportsFileListFlag(bool flag) override
    {
        setterCalled();
        fileList = flag;
    }
    bool useClamd() const override { return true; }
    QString enginePath() const override { return engine; }
    QString engineShortVersionString() const override { return shortVersion; }
    void setEngineShortVersionString(const QString &version) override
    {
        setterCalled();
        shortVersion = version;
    }

    QStringList takeReports()
    {
        QMutexLocker locker(&lock);
        return std::exchange(reports, {});
    }

    QString engine;
    // Unset until the checker sets them, so "left as it was" can be seen.
    std::optional<bool> exit1;
    std::optional<bool> fileList;
    QString shortVersion;
    std::atomic_int reportsOffMain = 0;
    std::atomic_int settersOnMain = 0;

private:
    void report(const QString &what)
    {
        if (!onMainThread())
            ++reportsOffMain;
        QMutexLocker locker(&lock);
        reports.append(what);
    }
    void setterCalled()
    {
        if (onMainThread())
            ++settersOnMain;
    }

    QMutex lock;
    QStringList reports;
};

// One checker on its own thread over one engine prefix.
struct CheckerRig
{
    explicit CheckerRig(const QString &engine, const QString &installer = QString())
    {
        delegate.engine = engine;
        checker.setInstallerPackagePath(installer.isNull() ? engine + QStringLiteral("/no-installer.pkg") : installer);
        checker.start();
    }

    // Runs on the checker's thread; answers once it has returned, with every
    // report it sent delivered.
    void onCheckerThread(std::function<void()> fn)
    {
        auto done = std::make_shared<std::atomic_bool>(false);
        checker.perform([fn, done] {
            fn();
            *done = true;
        });
        EXPECT_TRUE(QTest::qWaitFor([&] { return done->load(); }, 60000));
        QCoreApplication::sendPostedEvents();
    }

    QStringList check()
    {
        onCheckerThread([this] { checker.runCheck(); });
        return delegate.takeReports();
    }

    RecordingCheckerDelegate delegate;
    QXEngineChecker checker {&delegate};
};

QString versionStringFor(const QString &line)
{
    return BundleInfo::executableName() + QStringLiteral(" v") + BundleInfo::shortVersionString()
         + QStringLiteral(" - ") + line;
}

QString found(const QString &line)
{
    return QStringLiteral("engineFoundWithVersionString:") + versionStringFor(line);
}

// A prefix whose bin/clamscan prints output as a real one printed it.
void recordScanner(const ScriptedPrefix &prefix, const QByteArray &output)
{
    const QString recorded = prefix.writeFile(QStringLiteral("recorded-output"), output);
    prefix.writeScript(QStringLiteral("bin/clamscan"), "exec cat '" + recorded.toUtf8() + "'\n");
}

void writeInstaller(const QString &package, const QString &version)
{
    QDir().mkpath(package + QStringLiteral("/Contents"));
    ASSERT_TRUE(PropertyList::writeXmlFile(package + QStringLiteral("/Contents/Info.plist"),
                                           QVariantMap {{QStringLiteral("CFBundleShortVersionString"), version}}));
}

QByteArray capturingStandardOutput(const std::function<void()> &fn)
{
    QTemporaryFile file;
    if (!file.open())
        return "cannot capture";
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    ::dup2(file.handle(), STDOUT_FILENO);
    fn();
    std::fflush(stdout);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
    file.seek(0);
    return file.readAll();
}

// A UNIX socket that takes connections into its backlog and never answers,
// like a daemon that hangs.
class SilentListener
{
public:
    explicit SilentListener(const QString &path)
    {
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        const QByteArray name = path.toUtf8();
        if (std::size_t(name.size()) >= sizeof address.sun_path)
            return;
        std::memcpy(address.sun_path, name.constData(), std::size_t(name.size()));
        _fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        _listening = _fd >= 0 && ::bind(_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0
                  && ::listen(_fd, 4) == 0;
    }
    ~SilentListener()
    {
        if (_fd >= 0)
            ::close(_fd);
    }
    bool isListening() const { return _listening; }

private:
    int _fd = -1;
    bool _listening = false;
};

// A real engine prefix laid out by the project's installer, without its
// daemon started; with emptied definitions when asked.
class InstalledPrefix
{
public:
    explicit InstalledPrefix(bool withDefinitions)
    {
        QProcess install;
        install.setProcessChannelMode(QProcess::MergedChannels);
        install.start(EngineFixture::installScriptPath(), {enginePath()});
        _ready = install.waitForFinished(300000) && install.exitStatus() == QProcess::NormalExit
              && install.exitCode() == 0;
        _output = QString::fromLocal8Bit(install.readAll());
        if (_ready && !withDefinitions) {
            QDir db(enginePath() + QStringLiteral("/share/clamav"));
            for (const QString &name : db.entryList(QDir::Files))
                db.remove(name);
        }
    }
    ~InstalledPrefix() { stopDaemon(); }

    bool isReady() const { return _ready; }
    QString output() const { return _output; }
    QString enginePath() const { return _dir.path() + QStringLiteral("/engine"); }

    // Stops a daemon that runs on this prefix, whoever started it.
    void stopDaemon()
    {
        QFile pidFile(enginePath() + QStringLiteral("/run/clamd.pid"));
        if (!pidFile.open(QIODevice::ReadOnly))
            return;
        const pid_t pid = pid_t(pidFile.readAll().trimmed().toLongLong());
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
        if (pid <= 0 || !cmdline.open(QIODevice::ReadOnly) || !cmdline.readAll().contains(enginePath().toUtf8()))
            return;
        ::kill(pid, SIGTERM);
        if (!QTest::qWaitFor([pid] { return ::kill(pid, 0) != 0; }, 10000))
            ::kill(pid, SIGKILL);
    }

private:
    QTemporaryDir _dir {QDir::tempPath() + QStringLiteral("/korvane-checker-XXXXXX")};
    bool _ready = false;
    QString _output;
};

} // namespace

TEST(QXEngineCheckerTest, RecordedVersionLinesDecideTheReportAndTheThresholds)
{
    struct Case
    {
        QByteArray output;
        QString report;
        std::optional<bool> exit1;
        std::optional<bool> fileList;
        QString shortVersion;
        QString installedLog;
    };
    const QString d = QStringLiteral("/19845/Mon Feb 10 12:00:00 2014");
    const QList<Case> cases {
        {"ClamAV 0.98.4/19845/Mon Feb 10 12:00:00 2014\n", found("ClamAV 0.98.4" + d), true, true,
         "0.98.4", "installed major 0 minor 98.400000"},
        {"ClamAV 0.98.4\n", "needToUpdateDB", true, true, "0.98.4", "installed major 0 minor 98.400000"},
        {"ClamAV 0.95.1/19845/Mon Feb 10 12:00:00 2014\n", found("ClamAV 0.95.1" + d), false, false,
         "0.95.1", "installed major 0 minor 95.100000"},
        {"ClamAV 0.95.2/19845/Mon Feb 10 12:00:00 2014\n", found("ClamAV 0.95.2" + d), false, true,
         "0.95.2", "installed major 0 minor 95.200000"},
        {"ClamAV 0.96/19845/Mon Feb 10 12:00:00 2014\n", found("ClamAV 0.96" + d), true, true, "0.96",
         "installed major 0 minor 96.000000"},
        // From major version 1 on both thresholds are passed, whatever the minor.
        {"ClamAV 1.0.0/27000/Mon Nov 23 00:14:55 2026\n",
         found("ClamAV 1.0.0/27000/Mon Nov 23 00:14:55 2026"), true, true, "1.0.0",
         "installed major 1 minor 0.000000"},
        {"ClamAV 1.4.6\n", "needToUpdateDB", true, true, "1.4.6", "installed major 1 minor 4.600000"},
        // Several version lines: each is read, the last one decides.
        {"ClamAV 0.95.1/19845/Mon Feb 10 12:00:00 2014\nClamAV 0.98.4\n", "needToUpdateDB", true, true,
         "0.98.4", "installed major 0 minor 98.400000"},
        {"ClamAV 0.98.4\nClamAV 0.95.2/1/x\n", found("ClamAV 0.95.2/1/x"), false, true, "0.95.2",
         "installed major 0 minor 95.200000"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.output.toStdString());
        ScriptedPrefix prefix;
        recordScanner(prefix, c.output);
        CheckerRig rig(prefix.path());
        LogCapture log;
        EXPECT_EQ(rig.check(), QStringList {c.report});
        EXPECT_EQ(rig.delegate.exit1, c.exit1);
        EXPECT_EQ(rig.delegate.fileList, c.fileList);
        EXPECT_EQ(rig.delegate.shortVersion, c.shortVersion);
        EXPECT_TRUE(log.contains(c.installedLog)) << log.lines().join('\n').toStdString();
        EXPECT_TRUE(log.contains(QStringLiteral("bundled major 0 minor 0.000000")));
        EXPECT_EQ(rig.delegate.reportsOffMain, 0);
        EXPECT_EQ(rig.delegate.settersOnMain, 0);
    }
}

TEST(QXEngineCheckerTest, DevelVersionAllowsTheFileListAndLeavesTheRestAlone)
{
    ScriptedPrefix prefix;
    const QString line = QStringLiteral("ClamAV 0.99-devel-20140210/19845/Mon Feb 10 12:00:00 2014");
    recordScanner(prefix, line.toUtf8() + '\n');
    // Even a newer installer is not compared with a development build.
    const QString installer = prefix.filePath(QStringLiteral("clamavEngineInstaller.pkg"));
    writeInstaller(installer, QStringLiteral("0.99.5"));
    CheckerRig rig(prefix.path(), installer);
    rig.delegate.shortVersion = QStringLiteral("0.98.1");
    LogCapture log;

    EXPECT_EQ(rig.check(), QStringList {found(line)});
    EXPECT_EQ(rig.delegate.fileList, std::optional<bool>(true));
    EXPECT_EQ(rig.delegate.exit1, std::nullopt);
    EXPECT_EQ(rig.delegate.shortVersion, QStringLiteral("0.98.1"));
    EXPECT_FALSE(log.anyContains(QStringLiteral("installed major")));
    EXPECT_FALSE(rig.checker.engineNeedsUpdated());
}

TEST(QXEngineCheckerTest, NewerBundledInstallerAsksForAnEngineUpdateFromThenOn)
{
    ScriptedPrefix prefix;
    const QString installer = prefix.filePath(QStringLiteral("share/korvane/clamavEngineInstaller.pkg"));
    const QString old = QStringLiteral("ClamAV 0.98.4/19845/Mon Feb 10 12:00:00 2014");
    recordScanner(prefix, old.toUtf8() + '\n');
    {
        writeInstaller(installer, QStringLiteral("0.98.1"));
        CheckerRig rig(prefix.path(), installer);
        LogCapture log;
        EXPECT_EQ(rig.check(), QStringList {found(old)});
        EXPECT_TRUE(log.contains(QStringLiteral("bundled major 0 minor 98.100000")));
    }
    {
        writeInstaller(installer, QStringLiteral("0.98.5"));
        CheckerRig rig(prefix.path(), installer);
        EXPECT_EQ(rig.check(), QStringList {QStringLiteral("needToUpdateEngine")});
        EXPECT_TRUE(rig.checker.engineNeedsUpdated());
        EXPECT_EQ(rig.checker.versionString(), versionStringFor(old));
        // Once found newer, the engine stays outdated for this checker.
        QDir(installer).removeRecursively();
        EXPECT_EQ(rig.check(), QStringList {QStringLiteral("needToUpdateEngine")});
    }

    const QString current = QStringLiteral("ClamAV 1.4.6/27000/Mon Nov 23 00:14:55 2026");
    recordScanner(prefix, current.toUtf8() + '\n');
    const QList<QPair<QString, QString>> bundled {
        {QStringLiteral("1.5.0"), QStringLiteral("needToUpdateEngine")},
        {QStringLiteral("1.4.6"), found(current)},
        {QStringLiteral("0.105.2"), found(current)},
        {QStringLiteral("2.0"), QStringLiteral("needToUpdateEngine")},
    };
    for (const auto &[version, report] : bundled) {
        SCOPED_TRACE(version.toStdString());
        writeInstaller(installer, version);
        CheckerRig rig(prefix.path(), installer);
        EXPECT_EQ(rig.check(), QStringList {report});
    }
}

TEST(QXEngineCheckerTest, ScannerWithoutAVersionLineMeansTryAgain)
{
    ScriptedPrefix prefix;
    CheckerRig rig(prefix.path());
    LogCapture log;

    // No scanner at all.
    EXPECT_EQ(rig.check(), QStringList {QStringLiteral("engineNotFound")});

    // Too short, or not at the start of a line.
    recordScanner(prefix, "ClamAV 1\nVersion: ClamAV 0.98.4/1/x\n\n");
    EXPECT_EQ(rig.check(), QStringList {QStringLiteral("engineCheckFailedTryAgain")});

    prefix.writeScript(QStringLiteral("bin/clamscan"), "exit 0\n");
    EXPECT_EQ(rig.check(), QStringList {QStringLiteral("engineCheckFailedTryAgain")});

    prefix.writeScript(QStringLiteral("bin/clamscan"),
                       "echo 'LibClamAV Error: cl_load(): No such file or directory' >&2\nexit 2\n");
    EXPECT_EQ(rig.check(), QStringList {QStringLiteral("engineCheckFailedTryAgain")});
    EXPECT_TRUE(log.contains(QStringLiteral("error:LibClamAV Error: cl_load(): No such file or directory\n")))
        << log.lines().join('|').toStdString();

    // There, but not a program that can be started.
    QFile::setPermissions(prefix.filePath(QStringLiteral("bin/clamscan")), QFile::ReadOwner | QFile::WriteOwner);
    EXPECT_EQ(rig.check(), QStringList {QStringLiteral("engineCheckFailedTryAgain")});
    EXPECT_EQ(rig.delegate.reportsOffMain, 0);
}

TEST(QXEngineCheckerTest, SocketComesFromTheLastLocalSocketLineOfClamdConf)
{
    struct Case
    {
        QByteArray conf;
        QString expected;
    };
    const QString preset = QStringLiteral("/preset.sock");
    const QList<Case> cases {
        {"#LocalSocket /tmp/clamd.socket\nLocalSocket /var/run/clamd.sock\n", "/var/run/clamd.sock"},
        {"#LocalSocket /tmp/clamd.socket\n", "/tmp/clamd.socket"},
        {"LocalSocket /var/run/clamd.sock\n# LocalSocket /tmp/later.sock\nLogSyslog no\n", "/tmp/later.sock"},
        // Taken as it stands: a carriage return stays, a second key ends it.
        {"LocalSocket /run/a.sock\r\n", "/run/a.sock\r"},
        {"LocalSocket a LocalSocket b\n", "a "},
        {"LocalSocket x", "x"},
        // No match leaves what was known.
        {"LocalSocket \nLocalSocketMode 660\nTCPSocket 3310\n", preset},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.conf.toStdString());
        ScriptedPrefix prefix;
        prefix.writeFile(QStringLiteral("etc/clamd.conf"), c.conf);
        RecordingCheckerDelegate delegate;
        delegate.engine = prefix.path();
        QXEngineChecker checker(&delegate);
        checker.setClamdSocket(preset);
        checker.discernClamdSocketLocation();
        EXPECT_EQ(checker.clamdSocket(), c.expected);
    }

    ScriptedPrefix empty;
    RecordingCheckerDelegate delegate;
    delegate.engine = empty.path();
    QXEngineChecker checker(&delegate);
    checker.discernClamdSocketLocation();
    EXPECT_TRUE(checker.clamdSocket().isNull());
}

TEST(QXEngineCheckerTest, DaemonThatCannotBeReachedIsNotResponding)
{
    ScriptedPrefix prefix;
    RecordingCheckerDelegate delegate;
    delegate.engine = prefix.path();
    QXEngineChecker checker(&delegate);

    // No configuration: nothing is tried and nothing printed.
    EXPECT_EQ(capturingStandardOutput([&] { EXPECT_FALSE(checker.clamdResponding()); }), QByteArray());

    const QString socket = prefix.filePath(QStringLiteral("run/clamd.sock"));
    prefix.writeFile(QStringLiteral("etc/clamd.conf"), "LocalSocket " + socket.toUtf8() + '\n');
    QXEngineChecker fresh(&delegate);
    EXPECT_EQ(capturingStandardOutput([&] { EXPECT_FALSE(fresh.clamdResponding()); }),
              "Error, can't connect to clamd through " + socket.toUtf8() + ".\n");
    EXPECT_EQ(fresh.clamdSocket(), socket);

    // Accepts the connection but never answers: the time limit ends the wait.
    QDir().mkpath(prefix.filePath(QStringLiteral("run")));
    SilentListener silent(socket);
    ASSERT_TRUE(silent.isListening());
    const QByteArray printed = capturingStandardOutput([&] { EXPECT_FALSE(fresh.clamdResponding()); });
    EXPECT_EQ(printed, "Error, clamd did not answer through " + socket.toUtf8() + ".\n");
}

TEST(QXEngineCheckerTest, ClamdRunningSeesAnyProgramWhosePathContainsClamd)
{
    QTemporaryDir dir;
    // /proc/<pid>/exe names the real file behind a symbolic link, so the
    // program must be a copy under the telling name.
    const QString fake = QFileInfo(dir.filePath(QStringLiteral("clamd-fake"))).absoluteFilePath();
    ASSERT_TRUE(QFile::copy(QStringLiteral("/bin/sleep"), fake));
    QFile::setPermissions(fake, QFile::ReadOwner | QFile::ExeOwner);
    const QString canonical = QFileInfo(fake).canonicalFilePath();

    QProcess sleeper;
    sleeper.start(fake, {QStringLiteral("60")});
    ASSERT_TRUE(sleeper.waitForStarted());

    RecordingCheckerDelegate delegate;
    QXEngineChecker checker(&delegate);
    EXPECT_TRUE(QTest::qWaitFor([&] { return ProcessList::executablePaths().contains(canonical); }, 10000));
    EXPECT_TRUE(checker.clamdRunning());
    EXPECT_TRUE(ProcessList::executablePaths().contains(QFileInfo(QCoreApplication::applicationFilePath()).canonicalFilePath()));

    sleeper.kill();
    ASSERT_TRUE(sleeper.waitForFinished());
    EXPECT_FALSE(ProcessList::executablePaths().contains(canonical));
}

TEST(QXEngineCheckerTest, RealEngineIsFoundAndItsDaemonAnswers)
{
    EngineFixture &engine = EngineFixture::shared();
    ASSERT_TRUE(engine.isReady()) << engine.errorString().toStdString();
    CheckerRig rig(engine.enginePath());
    LogCapture log;

    const QStringList reports = rig.check();
    ASSERT_EQ(reports.size(), 1);
    const QString prefix = found(QStringLiteral("ClamAV "));
    ASSERT_TRUE(reports.first().startsWith(prefix)) << reports.first().toStdString();
    // The engine's own line: its version, our definitions' version and date.
    const QString line = reports.first().mid(prefix.size() - 7);
    const QRegularExpressionMatch parts =
        QRegularExpression(QStringLiteral("^ClamAV ((\\d+)\\.[^/]+)/\\d+/.+$")).match(line);
    ASSERT_TRUE(parts.hasMatch()) << line.toStdString();
    EXPECT_EQ(rig.checker.versionString(), versionStringFor(line));
    EXPECT_EQ(rig.delegate.shortVersion, parts.captured(1));
    EXPECT_TRUE(log.anyContains(QStringLiteral("installed major %1 minor ").arg(parts.captured(2))));
    ASSERT_GE(parts.captured(2).toInt(), 1) << "the thresholds below are those of engines from 1.0 on";
    EXPECT_EQ(rig.delegate.exit1, std::optional<bool>(true));
    EXPECT_EQ(rig.delegate.fileList, std::optional<bool>(true));
    EXPECT_FALSE(rig.checker.dbNeedsUpdated());

    EXPECT_TRUE(rig.checker.clamdRunning());
    EXPECT_TRUE(rig.checker.clamdResponding());
    EXPECT_EQ(rig.checker.clamdSocket(), engine.socketPath());
}

TEST(QXEngineCheckerTest, RealEngineWithoutDefinitionsAsksForThemAndItsDaemonCannotStart)
{
    InstalledPrefix bare(false);
    ASSERT_TRUE(bare.isReady()) << bare.output().toStdString();
    CheckerRig rig(bare.enginePath());

    EXPECT_EQ(rig.check(), QStringList {QStringLiteral("needToUpdateDB")});
    EXPECT_TRUE(rig.checker.dbNeedsUpdated());

    rig.onCheckerThread([&] { rig.checker.startClamd(); });
    EXPECT_EQ(rig.delegate.takeReports(), QStringList {QStringLiteral("clamdFailedToStart")});

    // No daemon program at all.
    ScriptedPrefix empty;
    CheckerRig none(empty.path());
    none.onCheckerThread([&] { none.checker.startClamd(); });
    EXPECT_EQ(none.delegate.takeReports(), QStringList {QStringLiteral("clamdFailedToStart")});
}

TEST(QXEngineCheckerTest, DaemonIsStartedOnAFreshPrefixAndAgainAfterQuit)
{
    InstalledPrefix installed(true);
    ASSERT_TRUE(installed.isReady()) << installed.output().toStdString();
    CheckerRig rig(installed.enginePath());
    EXPECT_FALSE(rig.checker.clamdResponding());

    rig.onCheckerThread([&] { rig.checker.startClamd(); });
    EXPECT_EQ(rig.delegate.takeReports(), QStringList {QStringLiteral("clamdStarted")});
    EXPECT_TRUE(rig.checker.clamdResponding());

    rig.checker.quitClamd();
    EXPECT_TRUE(QTest::qWaitFor([&] { return !rig.checker.clamdResponding(); }, 20000));

    rig.onCheckerThread([&] { rig.checker.startClamd(); });
    EXPECT_EQ(rig.delegate.takeReports(), QStringList {QStringLiteral("clamdStarted")});
    EXPECT_TRUE(rig.checker.clamdResponding());
}
