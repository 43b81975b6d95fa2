#include "Tarnlib/Tarnlib/QXEngineChecker.h"
#include "Tarnlib/Tarnlib/QXEngineCheckerDelegate.h"
#include "platform/BundleInfo.h"
#include "platform/ProcessList.h"
#include "platform/PropertyList.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/LogCapture.h"
#include "tests/support/QtPrinters.h"
#include "tests/support/RemoteDaemon.h"
#include "tests/support/ScriptedPrefix.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QMutex>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <atomic>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
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
// checker sets and records the reports in order. Reports belong on the main
// thread and settings on the checker's; anything else is counted.
class RecordingCheckerDelegate : public QXEngineCheckerDelegate
{
public:
    void engineNotFound() override { report("engineNotFound"); }
    void engineCheckFailedTryAgain() override { report("engineCheckFailedTryAgain"); }
    void engineFoundWithVersionString(const QString &version) override
    {
        report("engineFoundWithVersionString:" + version);
    }
    void needToUpdateDB() override { report("needToUpdateDB"); }
    void needToUpdateEngine() override { report("needToUpdateEngine"); }
    void clamdStarted() override { report("clamdStarted"); }
    void clamdFailedToStart() override { report("clamdFailedToStart"); }

    bool updaterNeedsExit1FreshclamFlag() const override { return exit1.value_or(false); }
    void setUpdaterNeedsExit1FreshclamFlag(bool flag) override { set(exit1, flag); }
    bool engineSupportsFileListFlag() const override { return fileList.value_or(false); }
    void setEngineSupportsFileListFlag(bool flag) override { set(fileList, flag); }
    bool useClamd() const override { return true; }
    QString enginePath() const override { return engine; }
    QString engineShortVersionString() const override { return shortVersion; }
    void setEngineShortVersionString(const QString &version) override { set(shortVersion, version); }

    QStringList takeReports()
    {
        QMutexLocker locker(&lock);
        return std::exchange(reports, {});
    }

    QString engine;
    // Unset until the checker sets them, so "left as it was" can be seen.
    std::optional<bool> exit1, fileList;
    QString shortVersion;
    std::atomic_int wrongThread = 0;

private:
    void report(const QString &what)
    {
        wrongThread += onMainThread() ? 0 : 1;
        QMutexLocker locker(&lock);
        reports.append(what);
    }
    template <typename Field, typename Value> void set(Field &field, const Value &value)
    {
        wrongThread += onMainThread() ? 1 : 0;
        field = value;
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
        checker.setInstallerPackagePath(installer.isNull() ? engine + "/no-installer.pkg" : installer);
        checker.start();
    }

    // Runs fn on the checker's thread and answers the reports it sent.
    QStringList onCheckerThread(std::function<void()> fn)
    {
        auto done = std::make_shared<std::atomic_bool>(false);
        checker.perform([fn, done] {
            fn();
            *done = true;
        });
        EXPECT_TRUE(QTest::qWaitFor([&] { return done->load(); }, 60000));
        QCoreApplication::sendPostedEvents();
        return delegate.takeReports();
    }
    QStringList check()
    {
        return onCheckerThread([this] { checker.runCheck(); });
    }
    QStringList startClamd()
    {
        return onCheckerThread([this] { checker.startClamd(); });
    }

    RecordingCheckerDelegate delegate;
    QXEngineChecker checker{&delegate};
};

QString versionStringFor(const QString &line)
{
    return BundleInfo::executableName() + " v" + BundleInfo::shortVersionString() + " - " + line;
}

QStringList found(const QString &line)
{
    return {"engineFoundWithVersionString:" + versionStringFor(line)};
}

// A prefix whose bin/clamscan prints output as a real one printed it.
void recordScanner(const ScriptedPrefix &prefix, const QByteArray &output)
{
    const QString recorded = prefix.writeFile("recorded-output", output);
    prefix.writeScript("bin/clamscan", "exec cat '" + recorded.toUtf8() + "'\n");
}

void writeInstaller(const QString &package, const QString &version)
{
    QDir().mkpath(package + "/Contents");
    ASSERT_TRUE(PropertyList::writeXmlFile(package + "/Contents/Info.plist",
                                           QVariantMap{{"CFBundleShortVersionString", version}}));
}

// A real engine prefix laid out by the project's installer, its daemon not started.
struct InstalledPrefix
{
    InstalledPrefix()
    {
        // Laid out by root, the prefix is shared and its daemon runs as the
        // engine account, which must be able to reach it.
        QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                                              | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
        QProcess install;
        install.setProcessChannelMode(QProcess::MergedChannels);
        install.start(EngineFixture::installScriptPath(), {enginePath()});
        ready =
            install.waitForFinished(300000) && install.exitStatus() == QProcess::NormalExit && install.exitCode() == 0;
        output = install.readAll().toStdString();
    }
    // Stops a daemon left running on this prefix, whoever started it.
    ~InstalledPrefix()
    {
        QFile pidFile(enginePath() + "/run/clamd.pid");
        const pid_t pid = pidFile.open(QIODevice::ReadOnly) ? pid_t(pidFile.readAll().trimmed().toLongLong()) : 0;
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
        if (pid <= 0 || !cmdline.open(QIODevice::ReadOnly) || !cmdline.readAll().contains(enginePath().toUtf8()))
            return;
        ::kill(pid, SIGTERM);
        if (!QTest::qWaitFor([pid] { return ::kill(pid, 0) != 0; }, 10000))
            ::kill(pid, SIGKILL);
    }
    QString enginePath() const { return dir.path() + "/engine"; }

    QTemporaryDir dir{QDir::tempPath() + "/korvane-checker-XXXXXX"};
    bool ready = false;
    std::string output;
};

} // namespace

// An engine printing its version another way was told to update, or was never told.
TEST(QXEngineCheckerTest, VersionLinesDecideTheReportTheThresholdsAndAnEngineUpdate)
{
    const QByteArray d = "/19845/Mon Feb 10 12:00:00 2014";
    const QStringList db{"needToUpdateDB"}, engine{"needToUpdateEngine"}, again{"engineCheckFailedTryAgain"};
    const std::optional<bool> unset;
    const struct
    {
        QByteArray output;
        QString bundled;
        QStringList report;
        std::optional<bool> exit1, fileList;
        QString shortVersion;
    } cases[]{
        {"ClamAV 0.98.4" + d, "", found("ClamAV 0.98.4" + d), true, true, "0.98.4"},
        {"ClamAV 0.98.4", "", db, true, true, "0.98.4"},
        {"ClamAV 0.95.1" + d, "", found("ClamAV 0.95.1" + d), false, false, "0.95.1"},
        {"ClamAV 0.95.2" + d, "", found("ClamAV 0.95.2" + d), false, true, "0.95.2"},
        // From major version 1 on both thresholds are passed, whatever the minor.
        {"ClamAV 1.0.0" + d, "", found("ClamAV 1.0.0" + d), true, true, "1.0.0"},
        // Several version lines: each is read, the last one decides.
        {"ClamAV 0.95.1" + d + "\nClamAV 0.98.4", "", db, true, true, "0.98.4"},
        {"ClamAV 0.98.4\nClamAV 0.95.2/1/x", "", found("ClamAV 0.95.2/1/x"), false, true, "0.95.2"},
        // Only a newer bundled installer asks for an engine update.
        {"ClamAV 0.98.4" + d, "0.98.1", found("ClamAV 0.98.4" + d), true, true, "0.98.4"},
        {"ClamAV 0.98.4" + d, "0.98.5", engine, true, true, "0.98.4"},
        {"ClamAV 1.4.6" + d, "1.5.0", engine, true, true, "1.4.6"},
        {"ClamAV 1.4.6" + d, "1.4.6", found("ClamAV 1.4.6" + d), true, true, "1.4.6"},
        {"ClamAV 1.4.6" + d, "0.105.2", found("ClamAV 1.4.6" + d), true, true, "1.4.6"},
        // A development build allows the file list and leaves the rest alone,
        // even a newer installer.
        {"ClamAV 0.99-devel-20140210" + d, "0.99.5", found("ClamAV 0.99-devel-20140210" + d), unset, true, "preset"},
        // Too short, not at the start of a line, or none at all.
        {"ClamAV 1\nVersion: ClamAV 0.98.4/1/x\n", "", again, unset, unset, "preset"},
        {"", "", again, unset, unset, "preset"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE((c.output + " bundled " + c.bundled.toUtf8()).toStdString());
        ScriptedPrefix prefix;
        recordScanner(prefix, c.output + '\n');
        const QString installer = prefix.filePath("share/korvane/clamavEngineInstaller.pkg");
        if (!c.bundled.isEmpty())
            writeInstaller(installer, c.bundled);
        CheckerRig rig(prefix.path(), installer);
        rig.delegate.shortVersion = "preset";
        EXPECT_EQ(rig.check(), c.report);
        EXPECT_EQ(rig.delegate.exit1, c.exit1);
        EXPECT_EQ(rig.delegate.fileList, c.fileList);
        EXPECT_EQ(rig.delegate.shortVersion, c.shortVersion);
        EXPECT_EQ(rig.checker.engineNeedsUpdated(), c.report == engine);
        EXPECT_EQ(rig.delegate.wrongThread, 0);
        // Once found newer, the engine stays outdated for this checker.
        QDir(installer).removeRecursively();
        EXPECT_EQ(rig.check(), c.report == engine ? engine : c.report);
    }
}

TEST(QXEngineCheckerTest, MissingScannerIsNotFoundAndOneThatFailsOrCannotStartMeansTryAgain)
{
    ScriptedPrefix prefix;
    CheckerRig rig(prefix.path());
    LogCapture log;
    EXPECT_EQ(rig.check(), QStringList{"engineNotFound"});

    prefix.writeScript("bin/clamscan", "echo 'LibClamAV Error: cl_load(): No such file or directory' >&2\nexit 2\n");
    EXPECT_EQ(rig.check(), QStringList{"engineCheckFailedTryAgain"});
    EXPECT_TRUE(log.contains("error:LibClamAV Error: cl_load(): No such file or directory\n"))
        << log.lines().join('|').toStdString();
    QFile::setPermissions(prefix.filePath("bin/clamscan"), QFile::ReadOwner | QFile::WriteOwner);
    EXPECT_EQ(rig.check(), QStringList{"engineCheckFailedTryAgain"});
    EXPECT_EQ(rig.delegate.wrongThread, 0);
}

TEST(QXEngineCheckerTest, SocketComesFromTheLastLocalSocketLineOfClamdConf)
{
    const QString preset = "/preset.sock";
    const QList<QPair<QByteArray, QString>> cases{
        {"#LocalSocket /tmp/clamd.socket\nLocalSocket /var/run/clamd.sock\n", "/var/run/clamd.sock"},
        {"#LocalSocket /tmp/clamd.socket\n", "/tmp/clamd.socket"},
        {"LocalSocket /var/run/clamd.sock\n# LocalSocket /tmp/later.sock\nLogSyslog no\n", "/tmp/later.sock"},
        // No match leaves what was known, and so does no file at all.
        {"LocalSocket \nLocalSocketMode 660\nTCPSocket 3310\n", preset},
        {QByteArray(), preset},
    };
    for (const auto &[conf, expected] : cases) {
        SCOPED_TRACE(conf.toStdString());
        ScriptedPrefix prefix;
        if (!conf.isNull())
            prefix.writeFile("etc/clamd.conf", conf);
        RecordingCheckerDelegate delegate;
        delegate.engine = prefix.path();
        QXEngineChecker checker(&delegate);
        checker.setClamdSocket(preset);
        checker.discernClamdSocketLocation();
        EXPECT_EQ(checker.clamdSocket(), expected);
    }
}

TEST(QXEngineCheckerTest, DaemonThatCannotBeReachedOrHangsIsNotResponding)
{
    ScriptedPrefix prefix;
    RecordingCheckerDelegate delegate;
    delegate.engine = prefix.path();
    EXPECT_FALSE(QXEngineChecker(&delegate).clamdResponding()) << "without a configuration";

    const QByteArray socket = prefix.filePath("run/clamd.sock").toUtf8();
    prefix.writeFile("etc/clamd.conf", "LocalSocket " + socket + '\n');
    QXEngineChecker checker(&delegate);
    EXPECT_FALSE(checker.clamdResponding()) << "without a socket";
    EXPECT_EQ(checker.clamdSocket(), QString::fromUtf8(socket));

    // A socket that takes connections into its backlog and never answers,
    // like a daemon that hangs: the time limit ends the wait.
    QDir().mkpath(prefix.filePath("run"));
    const int silent = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, socket.constData(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(silent, 4), 0);
    EXPECT_FALSE(checker.clamdResponding());
    ::close(silent);
}

// A shared daemon runs as the engine account; another user's agent must still
// see it running, or it would start a second one that cannot take the socket.
TEST(QXEngineCheckerTest, ClamdRunningSeesADaemonOfAnotherUser)
{
    QTemporaryDir dir;
    // /proc/<pid>/exe names the real file behind a symbolic link, so the
    // program must be a copy under the telling name.
    const QString fake = QFileInfo(dir.filePath("clamd-fake")).absoluteFilePath();
    ASSERT_TRUE(QFile::copy("/bin/sleep", fake));
    QFile::setPermissions(fake, QFile::ReadOwner | QFile::ExeOwner);
    const QString canonical = QFileInfo(fake).canonicalFilePath();
    QProcess daemon;
    daemon.start(fake, {"60"});
    ASSERT_TRUE(daemon.waitForStarted());
    RecordingCheckerDelegate delegate;
    QXEngineChecker checker(&delegate);
    EXPECT_TRUE(QTest::qWaitFor([&] { return ProcessList::executablePaths().contains(canonical); }, 10000));
    EXPECT_TRUE(checker.clamdRunning());

    if (::geteuid() == 0) { // only root can look at the process list as another user here
        QProcess other;
        other.start("setpriv",
                    {"--reuid=65534", "--regid=65534", "--clear-groups", KORVANE_BINARY_DIR "/bin/list_programs"});
        ASSERT_TRUE(other.waitForFinished(30000)) << other.errorString().toStdString();
        const QStringList seen = QString::fromLocal8Bit(other.readAllStandardOutput()).split('\n');
        EXPECT_TRUE(seen.contains(canonical)) << other.readAllStandardError().toStdString();
    }
    daemon.kill();
    ASSERT_TRUE(daemon.waitForFinished());
    EXPECT_FALSE(ProcessList::executablePaths().contains(canonical));
}

TEST(QXEngineCheckerTest, RealEngineIsFoundItsDaemonStartsAgainAfterQuitButNotWithoutDefinitions)
{
    InstalledPrefix installed;
    ASSERT_TRUE(installed.ready) << installed.output;
    CheckerRig rig(installed.enginePath());
    LogCapture log;
    const QStringList reports = rig.check();
    ASSERT_EQ(reports.size(), 1);
    const QString prefix = found("ClamAV ").first();
    ASSERT_TRUE(reports.first().startsWith(prefix)) << reports.first().toStdString();
    // The engine's own line: its version, our definitions' version and date.
    const QString line = reports.first().mid(prefix.size() - 7);
    const QRegularExpressionMatch parts = QRegularExpression("^ClamAV ((\\d+)\\.[^/]+)/\\d+/.+$").match(line);
    ASSERT_TRUE(parts.hasMatch()) << line.toStdString();
    EXPECT_EQ(rig.checker.versionString(), versionStringFor(line));
    EXPECT_EQ(rig.delegate.shortVersion, parts.captured(1));
    EXPECT_TRUE(log.anyContains("installed major " + parts.captured(2) + " minor "));
    ASSERT_GE(parts.captured(2).toInt(), 1) << "the thresholds below are those of engines from 1.0 on";
    EXPECT_EQ(rig.delegate.exit1, true);
    EXPECT_EQ(rig.delegate.fileList, true);
    EXPECT_FALSE(rig.checker.dbNeedsUpdated());

    EXPECT_FALSE(rig.checker.clamdResponding());
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        EXPECT_EQ(rig.startClamd(), QStringList{"clamdStarted"});
        EXPECT_TRUE(rig.checker.clamdRunning());
        EXPECT_TRUE(rig.checker.clamdResponding());
        EXPECT_TRUE(rig.checker.clamdSocket().startsWith(installed.enginePath() + "/"))
            << rig.checker.clamdSocket().toStdString();
        rig.checker.quitClamd();
        EXPECT_TRUE(QTest::qWaitFor([&] { return !rig.checker.clamdResponding(); }, 20000));
    }

    QDir db(installed.enginePath() + "/share/clamav");
    for (const QString &name : db.entryList(QDir::Files))
        db.remove(name);
    EXPECT_EQ(rig.check(), QStringList{"needToUpdateDB"});
    EXPECT_TRUE(rig.checker.dbNeedsUpdated());
    EXPECT_EQ(rig.startClamd(), QStringList{"clamdFailedToStart"});

    // No daemon program at all.
    ScriptedPrefix empty;
    EXPECT_EQ(CheckerRig(empty.path()).startClamd(), QStringList{"clamdFailedToStart"});
}

TEST(QXEngineCheckerTest, ScanningServiceAnswersOverTcpWhileItRunsAndASilentListenerDoesNot)
{
    RemoteDaemon &service = RemoteDaemon::shared();
    ASSERT_TRUE(service.isReady()) << qPrintable(service.errorString());
    ASSERT_TRUE(service.start());
    CheckerRig rig(service.enginePath());
    rig.checker.setClamdReplyTimeLimit(std::chrono::milliseconds(500));
    EXPECT_TRUE(rig.checker.clamdIsRemote());
    EXPECT_TRUE(rig.checker.clamdResponding());
    // The agent never looks for a local socket of a remote prefix.
    EXPECT_TRUE(rig.checker.clamdSocket().isNull());

    ASSERT_TRUE(service.stop());
    EXPECT_FALSE(rig.checker.clamdResponding());
    ASSERT_TRUE(service.start());
    EXPECT_TRUE(rig.checker.clamdResponding());

    // Connections land in the backlog and nothing ever answers, as behind a
    // balancer whose daemons hang: the time limit ends the wait.
    const int silent = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr *>(&address), length), 0);
    ASSERT_EQ(::listen(silent, 4), 0);
    ASSERT_EQ(::getsockname(silent, reinterpret_cast<sockaddr *>(&address), &length), 0);
    ScriptedPrefix elsewhere;
    elsewhere.writeFile("etc/clamd.conf",
                        "TCPAddr 127.0.0.1\nTCPSocket " + QByteArray::number(ntohs(address.sin_port)) + "\n");
    CheckerRig silentRig(elsewhere.path());
    silentRig.checker.setClamdReplyTimeLimit(std::chrono::milliseconds(300));
    EXPECT_FALSE(silentRig.checker.clamdResponding());
    ::close(silent);
}
