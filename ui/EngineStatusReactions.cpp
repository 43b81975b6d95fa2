#include "EngineStatusReactions.h"

#include "EngineStatusReactionsDelegate.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/AlertPresenter.h"
#include "platform/Localization.h"
#include "platform/SystemLog.h"

#include <QTimer>

EngineStatusReactions::EngineStatusReactions(EngineStatusReactionsDelegate *delegate, QObject *parent)
    : QObject(parent)
    , _delegate(delegate)
{}

void EngineStatusReactions::engineNotFound()
{
    SystemLog::log(QStringLiteral("-[KorvaneVarden_AppDelegate engineNotFound]"));
    const int answer = AlertPresenter::sharedPresenter()->runModal(
        {Localization::text("VARDEN_ERROR"), Localization::text("LAUNCH_KORVANE"), Localization::text("QUIT_BUTTON"),
         QString(), Localization::text("ENGINE_NOT_FOUND")});
    if (answer == AlertPresenter::DefaultReturn)
        _delegate->launchKorvane(nullptr);
    _delegate->quit(nullptr);
}

void EngineStatusReactions::engineFoundWithVersionString(const QString &version)
{
    SystemLog::log(version);
}

void EngineStatusReactions::needToUpdateDB()
{
    SystemLog::log(QStringLiteral("-[KorvaneVarden_AppDelegate needToUpdateDB]"));
    const int answer = AlertPresenter::sharedPresenter()->runModal(
        {Localization::text("VARDEN_ERROR"), Localization::text("UPDATENOW_BUTTON"), Localization::text("QUIT_BUTTON"),
         QString(), Localization::text("MISSING_DEFS")});
    if (answer == AlertPresenter::DefaultReturn)
        _delegate->updateDefs(nullptr);
    else
        _delegate->quit(nullptr);
}

void EngineStatusReactions::clamdStarted()
{
    _delegate->continueStartup();
}

void EngineStatusReactions::clamdAlreadyRunning()
{
    _delegate->continueStartup();
}

void EngineStatusReactions::clamdFailedToStart()
{
    SystemLog::log(QStringLiteral("-[KorvaneVarden_AppDelegate clamdFailedToStart]"));
}

void EngineStatusReactions::updateStarted()
{
    _delegate->utils()->setUpdating(true);
    _delegate->setReadyToScan(false);
    _delegate->startUpdateAnimation();
}

void EngineStatusReactions::updateFinishedWithStatus(int status)
{
    _delegate->stopAnimation();

    const char *message = nullptr;
    switch (status) {
    case 0:
        message = "UPDATE_ALREADY";
        break;
    case 1:
        message = "UPDATE_COMPLETE";
        break;
    case 9:
        break;
    default:
        message = "UPDATE_CRASHED";
        break;
    }
    QXUtils *utils = _delegate->utils();
    if (message)
        utils->postToNotificationCenterWithTitle(QString(), Localization::text(message));
    utils->setUpdating(false);
    QTimer::singleShot(recheckDelayMs, utils, &QXUtils::checkEngine);
}
