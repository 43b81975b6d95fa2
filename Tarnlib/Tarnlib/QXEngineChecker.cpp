#include "QXEngineChecker.h"

#include "QXEngineCheckerDelegate.h"
#include "platform/BundleInfo.h"
#include "platform/ProcessList.h"
#include "platform/PropertyList.h"
#include "platform/SystemLog.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QProcess>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QTcpSocket>
#include <QVariantMap>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

struct EngineVersion
{
    int major = 0;
    double minor = 0.0;
};

// Like reading "0.98.4" as numbers the C way: leading digits count, whatever
// follows them is ignored, and no digits at all give 0.
EngineVersion parseEngineVersion(const QString &version)
{
    static const QRegularExpression leadingInt(QStringLiteral("^\\s*[+-]?\\d+"));
    static const QRegularExpression leadingReal(QStringLiteral("^\\s*[+-]?(\\d+\\.?\\d*|\\.\\d+)"));
    const qsizetype dot = version.indexOf(u'.');
    EngineVersion parsed;
    const QRegularExpressionMatch major = leadingInt.match(dot < 0 ? version : version.left(dot));
    if (major.hasMatch())
        parsed.major = QLocale::c().toInt(major.captured().trimmed());
    if (dot >= 0) {
        const QRegularExpressionMatch minor = leadingReal.match(version.mid(dot + 1));
        if (minor.hasMatch())
            parsed.minor = QLocale::c().toDouble(minor.captured().trimmed());
    }
    return parsed;
}

// Engines from major version 1 on are past both 0.x thresholds.
bool needsExit1Flag(const EngineVersion &v)
{
    return v.major >= 1 || v.minor >= 96.0;
}

bool supportsFileList(const EngineVersion &v)
{
    return v.major >= 1 || v.minor > 95.1;
}

bool isNewer(const EngineVersion &candidate, const EngineVersion &installed)
{
    return candidate.major > installed.major
           || (candidate.major == installed.major && candidate.minor > installed.minor);
}

void printSystemError(const char *call, int error)
{
    std::fflush(stdout);
    errno = error;
    std::perror(call);
}

} // namespace

QXEngineChecker::QXEngineChecker(QXEngineCheckerDelegate *delegate)
    : _delegate(delegate)
    , _installerPackagePath(defaultInstallerPackagePath())
{}

QXEngineChecker::~QXEngineChecker()
{
    // No run may go on using this object's fields.
    stopThread();
}

QString QXEngineChecker::defaultInstallerPackagePath()
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath()
                           + QStringLiteral("/../share/korvane/clamavEngineInstaller.pkg"));
}

void QXEngineChecker::runCheck()
{
    QXEngineCheckerDelegate *delegate = _delegate;
    const QString scanner = QDir::cleanPath(delegate->enginePath() + QStringLiteral("/bin/clamscan"));
    if (!QFileInfo::exists(scanner)) {
        reportToMain([delegate] { delegate->engineNotFound(); });
        return;
    }

    _readingOutput = true;
    _readingError = true;
    const RunResult result = runChild(scanner, {QStringLiteral("-V")});
    if (!result.started)
        NSLog(QStringLiteral("error:%1").arg(result.error));
    _readingOutput = false;
    _readingError = false;

    if (!_engineFound) {
        reportToMain([delegate] { delegate->engineCheckFailedTryAgain(); });
    } else if (_dbNeedsUpdated) {
        reportToMain([delegate] { delegate->needToUpdateDB(); });
    } else if (_engineNeedsUpdated) {
        reportToMain([delegate] { delegate->needToUpdateEngine(); });
    } else {
        const QString version = _versionString;
        reportToMainAndWait([delegate, version] { delegate->engineFoundWithVersionString(version); });
    }
}

void QXEngineChecker::notifiedForStdOutput(const QByteArray &chunk)
{
    if (!_readingOutput)
        return;
    const QStringList pieces = QString::fromUtf8(chunk).split(u'\n');
    for (const QString &piece : pieces) {
        if (piece.size() >= 9 && piece.startsWith(QLatin1String("ClamAV")))
            handleVersionLine(piece);
    }
    _readingOutput = !_engineFound;
}

void QXEngineChecker::notifiedForStdError(const QByteArray &chunk)
{
    if (!_readingError)
        return;
    NSLog(QStringLiteral("error:%1").arg(QString::fromUtf8(chunk)));
    _readingError = !_engineFound;
}

// A line such as "ClamAV 0.98.4/19845/Mon Feb 10 12:00:00 2014": engine
// version, definitions version, definitions date; no "/" means no definitions.
void QXEngineChecker::handleVersionLine(const QString &line)
{
    _engineFound = true;
    _versionString =
        QStringLiteral("%1 v%2 - %3").arg(BundleInfo::executableName(), BundleInfo::shortVersionString(), line);
    const qsizetype slash = line.indexOf(u'/');
    _dbNeedsUpdated = slash < 0;

    // The version starts after "ClamAV "; a "/" inside that prefix is not
    // something the engine prints, so look for the end only past it.
    const qsizetype end = line.indexOf(u'/', 7);
    const QString version = end < 0 ? line.mid(7) : line.mid(7, end - 7);

    if (version.contains(QLatin1String("devel"))) {
        _delegate->setEngineSupportsFileListFlag(true);
        return;
    }

    _delegate->setEngineShortVersionString(version);
    const EngineVersion installed = parseEngineVersion(version);
    NSLog(QString::asprintf("installed major %d minor %f", installed.major, installed.minor));
    _delegate->setUpdaterNeedsExit1FreshclamFlag(needsExit1Flag(installed));

    const QVariant info = PropertyList::readFile(_installerPackagePath + QStringLiteral("/Contents/Info.plist"));
    const QString bundledVersion = info.toMap().value(QStringLiteral("CFBundleShortVersionString")).toString();
    const EngineVersion bundled = bundledVersion.isEmpty() ? EngineVersion{} : parseEngineVersion(bundledVersion);
    NSLog(QString::asprintf("bundled major %d minor %f", bundled.major, bundled.minor));
    if (isNewer(bundled, installed))
        _engineNeedsUpdated = true;

    _delegate->setEngineSupportsFileListFlag(supportsFileList(installed));
}

void QXEngineChecker::discernClamdSocketLocation()
{
    QFile conf(_delegate->enginePath() + QStringLiteral("/etc/clamd.conf"));
    if (!conf.open(QIODevice::ReadOnly))
        return;
    const QByteArray data = conf.readAll();
    QStringDecoder decode(QStringConverter::encodingForData(data).value_or(QStringConverter::Utf8));
    const QString text = decode(data);

    static const QLatin1String key("LocalSocket ");
    QString found;
    bool matched = false;
    // Comments count like any other line and the last match wins, as the
    // agent has always read this file.
    for (const QString &line : text.split(u'\n')) {
        if (line.size() < 13)
            continue;
        const qsizetype first = line.indexOf(key);
        if (first < 0)
            continue;
        const qsizetype start = first + key.size();
        const qsizetype second = line.indexOf(key, start);
        found = second < 0 ? line.mid(start) : line.mid(start, second - start);
        matched = true;
    }
    if (matched)
        setClamdSocket(found);
}

QString QXEngineChecker::clamdSocket() const
{
    QMutexLocker locker(&_clamdSocketLock);
    return _clamdSocket;
}

void QXEngineChecker::setClamdSocket(const QString &path)
{
    QMutexLocker locker(&_clamdSocketLock);
    _clamdSocket = path;
}

ClamdConfiguration QXEngineChecker::clamdConfiguration() const
{
    return ClamdConfiguration::fromFile(_delegate->enginePath() + QStringLiteral("/etc/clamd.conf"));
}

bool QXEngineChecker::talkToRemoteClamd(const ClamdConfiguration &configuration, const char *command)
{
    const QByteArray name = configuration.remoteDaemonName().toUtf8();
    const auto failed = [&name](const char *message, const char *call, const QTcpSocket &socket) {
        std::printf(message, name.constData());
        std::fflush(stdout);
        std::fprintf(stderr, "%s: %s\n", call, qPrintable(socket.errorString()));
        return false;
    };
    // The same limit as for the local socket bounds the whole exchange, so
    // a service behind a silent network cannot hold the caller.
    QDeadlineTimer deadline(_clamdReplyTimeLimit);
    QTcpSocket socket;
    socket.connectToHost(configuration.tcpAddress(), configuration.tcpPort());
    if (!socket.waitForConnected(int(deadline.remainingTime())))
        return failed("Error, can't connect to clamd through %s.\n", "connect()", socket);
    socket.write(command, qint64(std::strlen(command)) + 1);
    if (!socket.waitForBytesWritten(int(deadline.remainingTime())))
        return failed("Error, could not write to %s socket\n", "write()", socket);
    // A balancer with no daemon behind it may accept and then hang up.
    if (!socket.waitForReadyRead(int(deadline.remainingTime())) || socket.readAll().isEmpty())
        return failed("Error, clamd did not answer through %s.\n", "read()", socket);
    return true;
}

bool QXEngineChecker::talkToClamdWithCommand(const char *command)
{
    const ClamdConfiguration configuration = clamdConfiguration();
    if (configuration.daemonIsRemote())
        return talkToRemoteClamd(configuration, command);
    if (clamdSocket().isNull())
        discernClamdSocketLocation();
    const QString socketPath = clamdSocket();
    if (socketPath.isEmpty())
        return false;
    const QByteArray path = socketPath.toUtf8();

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // A longer path would be cut short and could name another socket.
    const bool fits = std::size_t(path.size()) < sizeof address.sun_path;
    if (fits)
        std::memcpy(address.sun_path, path.constData(), std::size_t(path.size()));

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        const int error = errno;
        std::printf("Error, can't create socket endpoint for %s.\n", path.constData());
        printSystemError("socket()", error);
        return false;
    }

    // A daemon that runs but does not answer must not hold the caller (often
    // the main thread): on UNIX sockets the send time-out also bounds
    // connect(), and poll() bounds the wait for the reply.
    const auto limit = _clamdReplyTimeLimit;
    timeval sendLimit{};
    sendLimit.tv_sec = time_t(limit.count() / 1000);
    sendLimit.tv_usec = suseconds_t((limit.count() % 1000) * 1000);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof sendLimit);

    if (!fits || ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int error = fits ? errno : ENAMETOOLONG;
        ::close(fd);
        std::printf("Error, can't connect to clamd through %s.\n", path.constData());
        printSystemError("connect()", error);
        return false;
    }

    // MSG_NOSIGNAL: a daemon that hung up must not kill the agent with SIGPIPE.
    if (::send(fd, command, std::strlen(command) + 1, MSG_NOSIGNAL) < 0) {
        const int error = errno;
        std::printf("Error, could not write to %s socket\n", "UNIX");
        printSystemError("write()", error);
        ::close(fd);
        return false;
    }

    QDeadlineTimer deadline(limit);
    pollfd readable{fd, POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&readable, 1, int(deadline.remainingTime()));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        const int error = ready < 0 ? errno : ETIMEDOUT;
        ::close(fd);
        std::printf("Error, clamd did not answer through %s.\n", path.constData());
        printSystemError("poll()", error);
        return false;
    }
    char reply[20] = {};
    [[maybe_unused]] const ssize_t got = ::recv(fd, reply, sizeof reply, 0);
    ::close(fd);
    return true;
}

bool QXEngineChecker::clamdResponding()
{
    return talkToClamdWithCommand("PING");
}

void QXEngineChecker::quitClamd()
{
    talkToClamdWithCommand("QUIT");
}

// Any program path containing "clamd" counts, the client clamdscan included.
bool QXEngineChecker::clamdRunning() const
{
    const QStringList programs = ProcessList::executablePaths();
    return std::any_of(programs.cbegin(), programs.cend(),
                       [](const QString &program) { return program.contains(QLatin1String("clamd")); });
}

// A daemon that hangs (stopped, or stuck) keeps its socket, and a new one
// will not start beside it. Only this prefix's daemon, run as this user, is
// ended here; one of another account is the prefix's helper's to end.
void QXEngineChecker::endHungClamd()
{
    const QString prefix = _delegate->enginePath();
    QFile pidFile(prefix + QStringLiteral("/run/clamd.pid"));
    if (!pidFile.open(QIODevice::ReadOnly))
        return;
    const qint64 pid = pidFile.readAll().trimmed().toLongLong();
    const QStringList arguments = ProcessList::arguments(pid);
    const QString configuration = QDir::cleanPath(prefix + QStringLiteral("/etc/clamd.conf"));
    static const QLatin1String option("--config-file=");
    const bool ours =
        arguments.value(0) == QLatin1String("/usr/sbin/clamd")
        && std::any_of(arguments.cbegin() + 1, arguments.cend(),
                       [&](const QString &a) {
                           return a.startsWith(option) && QDir::cleanPath(a.mid(option.size())) == configuration;
                       })
        && ProcessList::runsAsCurrentUser(pid);
    if (!ours || clamdResponding())
        return;
    NSLog(QStringLiteral("clamd (pid %1) does not answer: ending it").arg(pid));
    if (!ProcessList::killAndWait(pid, std::chrono::seconds(10)))
        NSLog(QStringLiteral("clamd (pid %1) did not end").arg(pid));
}

void QXEngineChecker::startClamd()
{
    QXEngineCheckerDelegate *delegate = _delegate;
    const QString program = QDir::cleanPath(delegate->enginePath() + QStringLiteral("/sbin/clamd"));
    endHungClamd();

    // The launcher returns once the daemon has gone into the background; it
    // writes to the agent's own output streams.
    QProcess launcher;
    launcher.setProcessChannelMode(QProcess::ForwardedChannels);
    launcher.setInputChannelMode(QProcess::ForwardedInputChannel);
    launcher.start(program, {});
    if (!launcher.waitForStarted(-1)) {
        NSLog(QStringLiteral("error:%1").arg(launcher.errorString()));
        reportToMain([delegate] { delegate->clamdFailedToStart(); });
        return;
    }
    launcher.waitForFinished(-1);

    if (clamdRunning() && clamdResponding())
        reportToMain([delegate] { delegate->clamdStarted(); });
    else
        reportToMain([delegate] { delegate->clamdFailedToStart(); });
}
