#include "EngineFixture.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>

#include <cerrno>
#include <csignal>
#include <sys/types.h>

namespace {

// A Unix socket path must fit sun_path, terminating NUL included.
constexpr int maxSocketPathLength = 107;

QString shellQuoted(const QString &text)
{
    QString quoted = text;
    quoted.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

bool writeFile(const QString &path, const QByteArray &contents, QFileDevice::Permissions permissions = {})
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(contents) != contents.size())
        return false;
    file.close();
    return !permissions || file.setPermissions(permissions);
}

constexpr auto executable = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                            | QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther
                            | QFileDevice::ExeOther;

// The daemon is not our child, so it is gone once it no longer exists or has
// become a zombie that nobody reaps.
bool processAlive(qint64 pid)
{
    if (::kill(pid_t(pid), 0) != 0 && errno == ESRCH)
        return false;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = stat.readAll();
    const qsizetype close = line.lastIndexOf(')');
    return close < 0 || line.mid(close + 2, 1) != "Z";
}

} // namespace

EngineFixture::EngineFixture(Layout layout)
    : _dir(QDir::tempPath() + QStringLiteral("/korvane-engine-XXXXXX"))
    , _layout(layout)
{
    if (_layout == Layout::Preferred)
        _layout = QFileInfo(installScriptPath()).isExecutable() ? Layout::InstallScript : Layout::HandMade;
    if (!_dir.isValid()) {
        _error = QStringLiteral("no temporary folder: ") + _dir.errorString();
        return;
    }
    // Laid out by root, the prefix is shared and its daemon runs as the
    // engine account, which must be able to reach it.
    QFile::setPermissions(_dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                                           | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
    if (socketPath().toUtf8().size() > maxSocketPathLength) {
        _error = QStringLiteral("socket path too long: ") + socketPath();
        return;
    }
    const bool laidOut = _layout == Layout::InstallScript ? runInstallScript() : writeHandMadePrefix();
    _ready = laidOut && startDaemon();
}

EngineFixture::~EngineFixture()
{
    stopDaemon();
}

EngineFixture &EngineFixture::shared()
{
    static EngineFixture engine;
    return engine;
}

QString EngineFixture::enginePath() const
{
    return _dir.path() + QStringLiteral("/engine");
}

QString EngineFixture::socketPath() const
{
    return enginePath() + QStringLiteral("/run/clamd.sock");
}

QString EngineFixture::pidFilePath() const
{
    return enginePath() + QStringLiteral("/run/clamd.pid");
}

QString EngineFixture::installScriptPath()
{
    return QStringLiteral(KORVANE_SOURCE_DIR "/scripts/install-engine");
}

QByteArray EngineFixture::eicarContents()
{
    return QByteArrayLiteral("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*");
}

QString EngineFixture::eicarSignatureName()
{
    return QStringLiteral("Korvane.Test.Eicar");
}

QByteArray EngineFixture::markerContents()
{
    return QByteArrayLiteral("KORVANE-HARMLESS-TEST-MARKER-479d68183ddb73ac");
}

QString EngineFixture::markerSignatureName()
{
    return QStringLiteral("Korvane.Test.Marker");
}

bool EngineFixture::runInstallScript()
{
    QProcess install;
    install.setProcessChannelMode(QProcess::MergedChannels);
    install.start(installScriptPath(), {enginePath()});
    if (!install.waitForFinished(300000) || install.exitStatus() != QProcess::NormalExit || install.exitCode() != 0) {
        _error = QStringLiteral("install-engine failed: ") + install.errorString() + QLatin1Char('\n')
                 + QString::fromLocal8Bit(install.readAll());
        return false;
    }
    return true;
}

bool EngineFixture::writeHandMadePrefix()
{
    const QString prefix = enginePath();
    const QString db = prefix + QStringLiteral("/share/clamav");
    const QString conf = prefix + QStringLiteral("/etc/clamd.conf");
    QDir().mkpath(db);
    QDir().mkpath(prefix + QStringLiteral("/run"));

    const QByteArray signatures = eicarSignatureName().toLatin1() + ":0:*:" + eicarContents().toHex() + '\n'
                                  + markerSignatureName().toLatin1() + ":0:*:" + markerContents().toHex() + '\n';
    const QByteArray clamdConf = "LocalSocket " + socketPath().toUtf8()
                                 + "\n"
                                   "PidFile "
                                 + pidFilePath().toUtf8()
                                 + "\n"
                                   "DatabaseDirectory "
                                 + db.toUtf8()
                                 + "\n"
                                   "TemporaryDirectory "
                                 + QDir::tempPath().toUtf8()
                                 + "\n"
                                   "FixStaleSocket yes\n"
                                   "Foreground no\n"
                                   "LogSyslog no\n";
    const auto wrapper = [](const QString &program, const QString &fixedArgument) {
        return QStringLiteral("#!/bin/sh\nexec %1 %2 \"$@\"\n").arg(program, shellQuoted(fixedArgument)).toUtf8();
    };
    const bool written =
        writeFile(db + QStringLiteral("/korvane.ndb"), signatures) && writeFile(conf, clamdConf)
        && writeFile(prefix + QStringLiteral("/bin/clamscan"),
                     wrapper(QStringLiteral("/usr/bin/clamscan"), QStringLiteral("--database=") + db), executable)
        && writeFile(prefix + QStringLiteral("/bin/clamdscan"),
                     wrapper(QStringLiteral("/usr/bin/clamdscan"), QStringLiteral("--config-file=") + conf), executable)
        && writeFile(prefix + QStringLiteral("/sbin/clamd"),
                     wrapper(QStringLiteral("/usr/sbin/clamd"), QStringLiteral("--config-file=") + conf), executable);
    if (!written)
        _error = QStringLiteral("could not write the engine prefix in ") + prefix;
    return written;
}

bool EngineFixture::startDaemon()
{
    // The launcher returns once the definitions are loaded and the socket
    // listens; the daemon itself stays behind. The daemon tells the launcher
    // so with SIGINT, and when loading is quick that can come before the
    // launcher's handler is in place: a launcher killed by SIGINT means ready.
    QProcess launcher;
    launcher.setProcessChannelMode(QProcess::MergedChannels);
    launcher.start(enginePath() + QStringLiteral("/sbin/clamd"), {});
    const bool ended = launcher.waitForFinished(300000);
    const bool ready =
        ended
        && (launcher.exitStatus() == QProcess::NormalExit ? launcher.exitCode() == 0 : launcher.exitCode() == SIGINT);

    // Whatever the launcher said, a daemon that got as far as its pid file is
    // remembered so that the destructor stops it.
    QDeadlineTimer deadline(ready ? 10000 : 0);
    do {
        QFile pidFile(pidFilePath());
        if (pidFile.open(QIODevice::ReadOnly))
            _daemonPid = pidFile.readAll().trimmed().toLongLong();
        if (_daemonPid > 0 || deadline.hasExpired())
            break;
        QThread::msleep(20);
    } while (true);

    if (!ready) {
        _error = QStringLiteral("clamd did not start: ") + launcher.errorString() + QLatin1Char('\n')
                 + QString::fromLocal8Bit(launcher.readAll());
        return false;
    }
    if (_daemonPid <= 0) {
        _error = QStringLiteral("clamd left no pid in ") + pidFilePath();
        return false;
    }
    return true;
}

void EngineFixture::stopDaemon()
{
    // A test may have had the agent start the daemon again: the pid file
    // names the one running now.
    QFile pidFile(pidFilePath());
    const qint64 current = pidFile.open(QIODevice::ReadOnly) ? pidFile.readAll().trimmed().toLongLong() : 0;
    for (const qint64 pid : {_daemonPid, current}) {
        if (pid <= 0)
            continue;
        // Only the daemon of this prefix: its command line names our configuration.
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
        if (!cmdline.open(QIODevice::ReadOnly) || !cmdline.readAll().contains(enginePath().toUtf8()))
            continue;
        ::kill(pid_t(pid), SIGTERM);
        QDeadlineTimer deadline(10000);
        while (processAlive(pid) && !deadline.hasExpired())
            QThread::msleep(20);
        if (processAlive(pid))
            ::kill(pid_t(pid), SIGKILL);
    }
    _daemonPid = 0;
}

bool EngineFixture::offerUpdate(const QByteArray &extraSignatures, int version)
{
    const QString source = QStringLiteral(KORVANE_SOURCE_DIR "/resources/signatures/");
    QFile ndb(source + QStringLiteral("korvane.ndb"));
    if (!_updateDir.isValid() || !ndb.open(QIODevice::ReadOnly))
        return false;
    const QString build = _updateDir.path();
    QDir().mkpath(build + QStringLiteral("/empty"));
    QFile::remove(build + QStringLiteral("/daily.cud"));
    QFile::remove(build + QStringLiteral("/COPYING"));
    if (!writeFile(build + QStringLiteral("/daily.ndb"), ndb.readAll() + extraSignatures)
        || !QFile::copy(source + QStringLiteral("COPYING"), build + QStringLiteral("/COPYING")))
        return false;
    QProcess sigtool;
    sigtool.setWorkingDirectory(build);
    sigtool.setProcessChannelMode(QProcess::MergedChannels);
    sigtool.start(QStringLiteral("sigtool"),
                  {QStringLiteral("--datadir=") + build + QStringLiteral("/empty"), QStringLiteral("--build=daily.cud"),
                   QStringLiteral("--unsigned"), QStringLiteral("--cvd-version=%1").arg(version)});
    sigtool.write("KorvaneTest\n");
    sigtool.closeWriteChannel();
    if (!sigtool.waitForFinished(60000) || sigtool.exitCode() != 0) {
        _error = QStringLiteral("sigtool failed: ") + QString::fromLocal8Bit(sigtool.readAll());
        return false;
    }
    const QString db = enginePath() + QStringLiteral("/share/clamav");
    const QString script = QStringLiteral("#!/bin/sh\ncp %1 %2.new && mv -f %2.new %2 || exit 2\n"
                                          "%3 --reload >/dev/null\nexit 1\n")
                               .arg(shellQuoted(build + QStringLiteral("/daily.cud")),
                                    shellQuoted(db + QStringLiteral("/daily.cud")),
                                    shellQuoted(enginePath() + QStringLiteral("/bin/clamdscan")));
    const QString runner = enginePath() + QStringLiteral("/bin/RunFreshclam");
    QFile::remove(runner);
    return writeFile(runner, script.toUtf8(), executable);
}
