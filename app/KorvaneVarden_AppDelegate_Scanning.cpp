// Handing batches to the engine, its reports, and stopping scans.
#include "KorvaneVarden_AppDelegate.h"

#include "DefinitionsRescan.h"
#include "Dispatcher.h"
#include "SelfTest.h"
#include "platform/AlertPresenter.h"
#include "platform/Localization.h"
#include "platform/NamedImage.h"
#include "platform/StatusItem.h"
#include "platform/SystemLog.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QFileInfo>
#include <QProcess>

#include <pwd.h>
#include <unistd.h>

namespace {

// The daemon's client and the stand-alone scanner, which scans on demand run.
QStringList scanPrograms{QStringLiteral("clamdscan"), QStringLiteral("clamscan")};

} // namespace

void KorvaneVarden_AppDelegate::startScan()
{
    _readyToScan = false;
    if (_utils->scanning())
        return;
    QStringList itemsToScan = _dispatcher->grabItemsToScan();
    // Nothing to hand over must not leave the guard waiting for a scan's end.
    if (itemsToScan.isEmpty()) {
        _readyToScan = true;
        return;
    }
    _selfTestBatch = scanSelfTestApart(itemsToScan);
    if (_selfTestBatch) {
        _utils->setScanning(true);
        _utils->scanFiles(itemsToScan, false);
        return;
    }
    SystemLog::log(QStringLiteral("itemsToScan.count: %1").arg(itemsToScan.size()));
    _utils->setScanning(true);
    _utils->determineQuarantineSettings();
    _utils->determineWhatToExcludeFromThisScan();
    // The daemon's client takes no exclusions, so they are applied here.
    // Files the list moved away are known by name even where the
    // quarantine folder cannot be left out whole.
    QStringList movedByUs;
    for (const InfectedItem &item : _infectionListWindow->dataSource()->arrangedObjects()) {
        if (!item.value(QStringLiteral("originalFilePath")).toString().isEmpty())
            movedByUs << item.value(QStringLiteral("filePath")).toString();
    }
    const QStringList toScan = _utils->leaveExcludedPathsOutOfBatch(itemsToScan, movedByUs);
    takeSettingsConflicts();
    if (toScan.isEmpty()) {
        _utils->setScanning(false);
        _readyToScan = true;
        return;
    }
    noteBatchBeforeScan(toScan);
    _utils->scanFiles(toScan);
}

void KorvaneVarden_AppDelegate::scanStarted()
{
    _throbberAnimationCurrentFrame = 0;
    disconnect(&_throbberAnimationTimer, &QTimer::timeout, this, nullptr);
    connect(&_throbberAnimationTimer, &QTimer::timeout, this, &KorvaneVarden_AppDelegate::forwardAnimation);
    _throbberAnimationTimer.start();
}

void KorvaneVarden_AppDelegate::startUpdateAnimation()
{
    _throbberAnimationCurrentFrame = int(_throbberAnimationFrames.size()) - 1;
    disconnect(&_throbberAnimationTimer, &QTimer::timeout, this, nullptr);
    connect(&_throbberAnimationTimer, &QTimer::timeout, this, &KorvaneVarden_AppDelegate::reverseAnimation);
    _throbberAnimationTimer.start();
}

void KorvaneVarden_AppDelegate::stopAnimation()
{
    _throbberAnimationTimer.stop();
    disconnect(&_throbberAnimationTimer, &QTimer::timeout, this, nullptr);
    _throbberStatusItem->setImage(_throbberWatchingImage);
}

void KorvaneVarden_AppDelegate::scanFinishedWithStatus(int status)
{
    const bool rescanBatch = _rescanBatch;
    if (std::exchange(_selfTestBatch, false))
        _selfTest->scanEnded();
    else
        takeCleanScans(status);
    // The engine may have refused the user's extra arguments.
    takeSettingsConflicts();
    stopAnimation();
    _utils->setScanning(false);
    _readyToScan = true;
    // New files that became ready during a rescan's batch go at once rather
    // than at the next tick, so the rescan delays them by one short batch at
    // most; otherwise the rescan goes on at once, at the daemon's pace.
    if (rescanBatch && !_dispatcher->readyList().isEmpty())
        QMetaObject::invokeMethod(this, &KorvaneVarden_AppDelegate::startScan, Qt::QueuedConnection);
    else if (_definitionsRescan->hasPending())
        QMetaObject::invokeMethod(this, &KorvaneVarden_AppDelegate::feedRescan, Qt::QueuedConnection);
}

void KorvaneVarden_AppDelegate::scanCrashed(const QString &reason)
{
    SystemLog::log(QStringLiteral("-[KorvaneVarden_AppDelegate scanCrashed:]:%1").arg(reason));
    // Nothing of a crashed batch counts as scanned.
    if (!_selfTestBatch)
        takeCleanScans(-1);
    scanFinishedWithStatus(0);
}

void KorvaneVarden_AppDelegate::forwardAnimation()
{
    _throbberStatusItem->setImage(_throbberAnimationFrames.value(_throbberAnimationCurrentFrame));
    ++_throbberAnimationCurrentFrame;
    if (_throbberAnimationCurrentFrame == _throbberAnimationFrames.size())
        _throbberAnimationCurrentFrame = 0;
}

void KorvaneVarden_AppDelegate::reverseAnimation()
{
    _throbberStatusItem->setImage(_throbberAnimationFrames.value(_throbberAnimationCurrentFrame));
    --_throbberAnimationCurrentFrame;
    if (_throbberAnimationCurrentFrame < 0)
        _throbberAnimationCurrentFrame = int(_throbberAnimationFrames.size()) - 1;
}

void KorvaneVarden_AppDelegate::abortScans(QObject *sender)
{
    const int answer = AlertPresenter::sharedPresenter()->runModal(
        {Localization::text("REALLY_ABORT_SCANS"), Localization::text("NO"), Localization::text("YES"), QString(),
         Localization::text("CONFIRM_ABORT_SCANS_MESSAGE")});
    if (answer == AlertPresenter::DefaultReturn) {
        SystemLog::log(QStringLiteral("do nothing"));
        return;
    }
    reallyAbortScans(sender);
}

void KorvaneVarden_AppDelegate::reallyAbortScans(QObject *)
{
    _dispatcher->removeAllItems();
    // The user asked for quiet: the files queued for a scan again are let go.
    _definitionsRescan->clear();
    // Our own batch is stopped as such, so that what its clients leave
    // unscanned is not taken up again once they are killed below, and a batch
    // waiting for the scanning service, which has no program to kill, ends too.
    _utils->stop();
    // Only the user's own scans: an agent running as root leaves other users' alone.
    const passwd *user = getpwuid(getuid());
    if (!user) {
        SystemLog::log(QStringLiteral("no user name for uid %1: no scans were stopped").arg(getuid()));
        return;
    }
    QProcess killall;
    const QString name = QString::fromLocal8Bit(user->pw_name);
    killall.start(QStringLiteral("killall"),
                  QStringList{QStringLiteral("-q"), QStringLiteral("-9"), QStringLiteral("-u"), name} + scanPrograms);
    if (!killall.waitForFinished(5000)) {
        SystemLog::log(QStringLiteral("killall could not stop the scans: %1").arg(killall.errorString()));
        return;
    }
    const QString errors = QString::fromLocal8Bit(killall.readAllStandardError()).trimmed();
    if (!errors.isEmpty())
        SystemLog::log(QStringLiteral("error:%1").arg(errors));
}

QStringList KorvaneVarden_AppDelegate::scanProgramNames()
{
    return scanPrograms;
}

void KorvaneVarden_AppDelegate::setScanProgramNames(const QStringList &names)
{
    scanPrograms = names;
}

// The agent shows no scan or update progress.
void KorvaneVarden_AppDelegate::updateProgressBarWithCountOfFilesScannedSoFar(quint32)
{}
void KorvaneVarden_AppDelegate::updateProgressWithMessage(const QString &)
{}
void KorvaneVarden_AppDelegate::updateProgressWithPercentDone(double)
{}

int KorvaneVarden_AppDelegate::addToInfectedListTheFile(const QString &fileName, const QString &path,
                                                        const QString &infectionName, const QString &status)
{
    QXTInfectedViewArrayController *list = _infectionListWindow->dataSource();
    if (list->containsFilePath(path))
        return 0;
    list->addObject({{QStringLiteral("fileName"), fileName},
                     {QStringLiteral("infectionName"), infectionName},
                     {QStringLiteral("filePath"), path},
                     {QStringLiteral("status"), status}});
    return 1;
}

void KorvaneVarden_AppDelegate::infectionFound(const QString &infectionName, const QString &inFile)
{
    // The self-test's own file is no infection of the user's.
    if (_selfTest->owns(inFile)) {
        _selfTest->found(inFile);
        return;
    }
    _infectedOfBatch.insert(inFile);
    const QString fileName = QFileInfo(inFile).fileName();
    addToInfectedListTheFile(fileName, inFile, infectionName, QString(""));
    // Drawing the same image again for every row of a burst would hold up the window.
    // Never freed: an icon must not outlive the application object.
    static const QIcon *const alertImage = new QIcon(NamedImage::imageNamed(QStringLiteral("watchingWithAlert")));
    _throbberWatchingImage = *alertImage;
    if (_throbberStatusItem->image().cacheKey() != alertImage->cacheKey())
        _throbberStatusItem->setImage(*alertImage);
    QString message = QStringLiteral("%1 infected with %2").arg(fileName, infectionName);
    // Scanned clean before: the user must know it is no new file.
    if (_rescanBatch)
        message += QStringLiteral(", found after the update of %1").arg(_definitionsRescan->updateDate());
    _utils->postToNotificationCenterWithTitle(QStringLiteral("Infection Found!"), message);
}
