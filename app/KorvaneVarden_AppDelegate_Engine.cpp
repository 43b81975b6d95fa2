// The engine check, the daemon's start and the definitions update.
#include "KorvaneVarden_AppDelegate.h"

#include "DefinitionsRescan.h"
#include "ProtectionStatus.h"
#include "ui/EngineStatusReactions.h"

void KorvaneVarden_AppDelegate::updateDefs(QObject *)
{
    if (_quitting)
        return;
    _utils->updateDefs();
}

void KorvaneVarden_AppDelegate::engineNotFound()
{
    _protectionStatus->setReason(QStringLiteral("engine"), ProtectionStatus::Off,
                                 QStringLiteral("no virus engine was found"));
    _engineStatusReactions->engineNotFound();
}

void KorvaneVarden_AppDelegate::engineFoundWithVersionString(const QString &version)
{
    _protectionStatus->clearReason(QStringLiteral("engine"));
    takeDefinitionsDate(version);
    if (_definitionsRescan->definitionsReported(version, rescanEnabled()))
        _rescanTimer.start();
    _engineStatusReactions->engineFoundWithVersionString(version);
}

void KorvaneVarden_AppDelegate::needToUpdateDB()
{
    _engineStatusReactions->needToUpdateDB();
}

void KorvaneVarden_AppDelegate::clamdStarted()
{
    _protectionStatus->clearReason(QStringLiteral("daemon"));
    _engineStatusReactions->clamdStarted();
}

void KorvaneVarden_AppDelegate::clamdFailedToStart()
{
    _protectionStatus->setReason(QStringLiteral("daemon"), ProtectionStatus::Off,
                                 QStringLiteral("the scan daemon does not answer"));
    _engineStatusReactions->clamdFailedToStart();
}

void KorvaneVarden_AppDelegate::clamdAlreadyRunning()
{
    _protectionStatus->clearReason(QStringLiteral("daemon"));
    _engineStatusReactions->clamdAlreadyRunning();
}

void KorvaneVarden_AppDelegate::updateStarted()
{
    _engineStatusReactions->updateStarted();
}

void KorvaneVarden_AppDelegate::updateFinishedWithStatus(int status)
{
    _engineStatusReactions->updateFinishedWithStatus(status);
}
