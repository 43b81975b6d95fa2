#include "QXFSEventStreamWatcher.h"

#include "platform/ApplicationHost.h"
#include "platform/PrivilegedExecution.h"
#include "platform/SystemLog.h"
#include "platform/Trash.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>

#include <pwd.h>
#include <sys/stat.h>

namespace {

QString loggerPath;

// The attribute set, as it is logged when it is wrong.
QString describe(const QString &path)
{
    struct stat info = {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return QStringLiteral("{path = \"%1\"; missing}").arg(path);
    const passwd *owner = getpwuid(info.st_uid);
    return QStringLiteral("{path = \"%1\"; owner = %2; uid = %3; gid = %4; permissions = %5}")
        .arg(path, owner ? QString::fromLocal8Bit(owner->pw_name) : QStringLiteral("?"))
        .arg(info.st_uid)
        .arg(info.st_gid)
        .arg(info.st_mode & 07777, 4, 8, QLatin1Char('0'));
}

} // namespace

QXFSEventStreamWatcher::QXFSEventStreamWatcher(QXFSEventStreamWatcherDelegate *delegate, QObject *parent)
    : QObject(parent)
    , _delegate(delegate)
    , _worker(new QObject)
{
    _thread.setObjectName(QStringLiteral("gfslogger"));
    _worker->moveToThread(&_thread);
    connect(&_thread, &QThread::finished, _worker, &QObject::deleteLater);

    if (attributesLookGood(gfsloggerPath())) {
        SystemLog::log(QStringLiteral("permissions look good..."));
        return;
    }
    SystemLog::log(QStringLiteral("must repair attributes: %1").arg(describe(gfsloggerPath())));
    repairPermissionsOnGfslogger();
}

QXFSEventStreamWatcher::~QXFSEventStreamWatcher()
{
    if (!_thread.isRunning()) {
        delete _worker;
        return;
    }
    QMetaObject::invokeMethod(
        _worker,
        [this] {
            delete unixTask;
            unixTask = nullptr;
        },
        Qt::BlockingQueuedConnection);
    _thread.quit();
    _thread.wait();
}

void QXFSEventStreamWatcher::start()
{
    _thread.start();
}

QString QXFSEventStreamWatcher::gfsloggerPath()
{
    if (!loggerPath.isEmpty())
        return loggerPath;
    // Beside the agent in a build tree, else where the install put it.
    const QString beside = QCoreApplication::applicationDirPath() + QStringLiteral("/gfslogger");
    return QFileInfo::exists(beside) ? beside
                                     : QDir::cleanPath(QCoreApplication::applicationDirPath()
                                                       + QStringLiteral("/../" KORVANE_HELPER_DIR "/gfslogger"));
}

void QXFSEventStreamWatcher::setGfsloggerPath(const QString &path)
{
    loggerPath = path;
}

QString QXFSEventStreamWatcher::repairToolPath()
{
    return QFileInfo(gfsloggerPath()).path() + QStringLiteral("/gfslogger-repair");
}

bool QXFSEventStreamWatcher::attributesLookGood(const QString &path)
{
    struct stat info = {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return false;
    const passwd *owner = getpwuid(info.st_uid);
    return owner && qstrcmp(owner->pw_name, "root") == 0 && (info.st_mode & 07777) == 06755;
}

void QXFSEventStreamWatcher::repairPermissionsOnGfslogger()
{
    const PrivilegedExecution::Result result =
        PrivilegedExecution::sharedExecution()->runWithPrivileges(repairToolPath());
    if (!result.started) {
        // No way to ask: the logger runs as it is and reports what it lacks.
        SystemLog::log(QStringLiteral("error: %1").arg(result.status));
        return;
    }
    if (result.status != 0) {
        SystemLog::log(QStringLiteral("Authentication failed (%1). Sorry!").arg(result.status));
        ApplicationHost::terminate();
        return;
    }
    SystemLog::log(QStringLiteral("Authentication succeeded and permissions set accordingly"));
}

void QXFSEventStreamWatcher::startWatching(const QStringList &folders)
{
    // The Trash folders come from the mount table, read here once per start.
    const QStringList trash = Trash::sharedTrash()->trashFolders();
    QMetaObject::invokeMethod(
        _worker, [this, folders, trash] { runLogger(folders, trash); }, Qt::QueuedConnection);
}

void QXFSEventStreamWatcher::stopWatching()
{
    SystemLog::log(QStringLiteral("attempting to terminate gfslogger"));
    QMetaObject::invokeMethod(
        _worker,
        [this] {
            if (unixTask)
                unixTask->terminate();
        },
        Qt::QueuedConnection);
}

namespace {

bool isInTrash(const QString &path, const QStringList &trashFolders)
{
    for (const QString &trash : trashFolders)
        if (path == trash || path.startsWith(trash + QLatin1Char('/')))
            return true;
    return false;
}

} // namespace

bool QXFSEventStreamWatcher::isTrashedFileAtPath(const QString &path) const
{
    return isInTrash(path, _trashFolders);
}

QStringList QXFSEventStreamWatcher::pathsInOutput(QByteArray &partialLine, const QByteArray &output,
                                                  const QStringList &folders, const QStringList &trashFolders)
{
    QByteArray chunk = partialLine + output;
    // A line cut by a read boundary waits for its rest.
    const qsizetype end = chunk.lastIndexOf('\n');
    partialLine = chunk.mid(end + 1);
    chunk.truncate(end + 1);
    QStringList paths;
    for (const QString &piece : QString::fromUtf8(chunk).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        for (const QString &folder : folders) {
            if (piece.startsWith(folder) && !isInTrash(piece, trashFolders)) {
                paths << piece;
                break;
            }
        }
    }
    return paths;
}

void QXFSEventStreamWatcher::runLogger(const QStringList &folders, const QStringList &trashFolders)
{
    if (unixTask) {
        // A restart: the old logger was asked to end just before.
        unixTask->waitForFinished(5000);
        delete unixTask;
        unixTask = nullptr;
    }
    watchedFolderList = folders;
    _trashFolders = trashFolders;
    _partialLine.clear();

    unixTask = new QProcess;
    unixTask->setProgram(gfsloggerPath());
    // Linux has no event history to read the folders from, so the logger
    // is told which file systems to watch.
    unixTask->setArguments(folders);
    unixTask->setInputChannelMode(QProcess::ForwardedInputChannel);
    QProcess *task = unixTask;
    connect(task, &QProcess::readyReadStandardOutput, _worker, [this] { notifiedForStdOutput(); });
    connect(task, &QProcess::readyReadStandardError, _worker, [this] { notifiedForStdError(); });
    connect(task, &QProcess::finished, _worker, [this, task] {
        notifiedForStdOutput();
        notifiedForStdError();
        if (unixTask == task) {
            unixTask = nullptr;
            task->deleteLater();
        }
        emit loggerEnded();
    });
    connect(task, &QProcess::errorOccurred, _worker, [this, task](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        SystemLog::log(QStringLiteral("error:%1").arg(task->errorString()));
        if (unixTask == task) {
            unixTask = nullptr;
            task->deleteLater();
        }
        emit loggerEnded();
    });
    unixTask->start();
}

void QXFSEventStreamWatcher::notifiedForStdOutput()
{
    if (!unixTask)
        return;
    const QStringList paths =
        pathsInOutput(_partialLine, unixTask->readAllStandardOutput(), watchedFolderList, _trashFolders);
    for (const QString &path : paths) {
        SystemLog::log(QStringLiteral("gfslogger found: %1").arg(path));
        QMetaObject::invokeMethod(
            this, [this, path] { _delegate->addToWaitingList(path); }, Qt::QueuedConnection);
    }
}

void QXFSEventStreamWatcher::notifiedForStdError()
{
    if (!unixTask)
        return;
    const QByteArray chunk = unixTask->readAllStandardError();
    if (!chunk.isEmpty())
        SystemLog::log(QStringLiteral("error:%1").arg(QString::fromUtf8(chunk)));
}
