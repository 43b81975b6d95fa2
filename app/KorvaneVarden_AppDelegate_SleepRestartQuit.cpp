// Sleep and wake, restart and quit.
#include "KorvaneVarden_AppDelegate.h"

#include "platform/ApplicationHost.h"
#include "platform/BundleInfo.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/Localization.h"
#include "platform/SystemLog.h"
#include "platform/UserDefaults.h"
#include "platform/UserNotificationCenter.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString hasQuitNotification = QStringLiteral("KorvaneVardenHasQuit");
QString relaunchTool;

} // namespace

void KorvaneVarden_AppDelegate::applicationWillTerminate()
{
    stopWatching(nullptr);
}

void KorvaneVarden_AppDelegate::goingToSleep()
{
    if (_watching) {
        SystemLog::log(QStringLiteral(
            "We're currently watching for changes, so stop and then register to know when we wake up again"));
        stopWatching(this);
        _startWatchingAfterSleep = true;
    }
    SystemLog::log(QStringLiteral("Nighty night!"));
}

void KorvaneVarden_AppDelegate::wakingUp()
{
    SystemLog::log(QStringLiteral("Wakey wakey!"));
    if (_startWatchingAfterSleep) {
        startWatching(this);
        _startWatchingAfterSleep = false;
    }
}

QString KorvaneVarden_AppDelegate::relaunchToolPath()
{
    if (!relaunchTool.isEmpty())
        return relaunchTool;
    return BundleInfo::helperFilePath(QStringLiteral("relaunch"),
                                      [](const QFileInfo &file) { return file.isExecutable(); });
}

void KorvaneVarden_AppDelegate::setRelaunchToolPath(const QString &path)
{
    relaunchTool = path;
}

QString KorvaneVarden_AppDelegate::privateFolderForRelaunchTool()
{
    // The copy runs with this user's rights, so it must lie where nobody else
    // can place a file first.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    struct stat info;
    if (!runtime.isEmpty() && ::stat(QFile::encodeName(runtime).constData(), &info) == 0 && S_ISDIR(info.st_mode)
        && info.st_uid == ::getuid() && (info.st_mode & 077) == 0)
        return runtime;
    QTemporaryDir fresh(QDir::tempPath() + QStringLiteral("/KorvaneVarden-relaunch-XXXXXX"));
    if (!fresh.isValid())
        return {};
    // The tool runs after we are gone.
    fresh.setAutoRemove(false);
    return fresh.path();
}

void KorvaneVarden_AppDelegate::restartVarden(QObject *)
{
    if (_quitting)
        return;
    const QString tool = relaunchToolPath();
    QString program = tool;
    const QString folder = privateFolderForRelaunchTool();
    const QString workingCopy = QDir(folder).filePath(QFileInfo(tool).fileName());
    if (!folder.isEmpty())
        QFile::remove(workingCopy);
    if (!folder.isEmpty() && QFile::copy(tool, workingCopy))
        program = workingCopy;
    else
        SystemLog::log(QStringLiteral("cannot copy %1 to a private folder: it runs from where it is").arg(tool));
    QProcess relaunch;
    relaunch.setProgram(program);
    relaunch.setArguments(
        {QCoreApplication::applicationFilePath(), QString::number(QCoreApplication::applicationPid())});
    bool started = relaunch.startDetached();
    if (!started && program != tool) {
        // A temporary folder mounted noexec takes the copy but will not run it.
        SystemLog::log(QStringLiteral("the copy of %1 does not start: it runs from where it is").arg(tool));
        QFile::remove(workingCopy);
        relaunch.setProgram(tool);
        started = relaunch.startDetached();
    }
    if (!started) {
        // The agent still ends, as asked; the user must know it will not come back.
        SystemLog::log(QStringLiteral("cannot start the relaunch tool %1: %2").arg(tool, relaunch.errorString()));
        UserNotificationCenter::defaultCenter()->deliverNotification(
            Localization::text("RELAUNCH_FAILED_TITLE"),
            Localization::text("RELAUNCH_FAILED_MESSAGE").arg(tool, relaunch.errorString()));
    }
    ApplicationHost::terminate();
}

void KorvaneVarden_AppDelegate::quit(QObject *)
{
    // A quit may arrive while an alert that offers Quit is open.
    if (_quitting)
        return;
    _quitting = true;
    _readyToScan = false;
    UserDefaults *own = UserDefaults::standardUserDefaults();
    own->removeObjectForKey(QStringLiteral("SUEnableAutomaticChecks"));
    own->removeObjectForKey(QStringLiteral("SULastCheckTime"));
    own->synchronize();

    stopObserving();
    DistributedNotificationCenter::defaultCenter()->postNotificationName(hasQuitNotification, notificationObject);
    ApplicationHost::terminate();
}
