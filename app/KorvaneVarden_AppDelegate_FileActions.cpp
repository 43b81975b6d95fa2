// The infected-items window, its path popup and the actions on its rows.
#include "KorvaneVarden_AppDelegate.h"

#include "platform/NamedImage.h"
#include "platform/StatusItem.h"
#include "platform/SystemLog.h"
#include "ui/InfectedFileActions.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/PathPopup.h"
#include "ui/QXAttachedWindow.h"
#include "ui/QXTInfectedViewArrayController.h"

void KorvaneVarden_AppDelegate::showInfectionListWindow(QObject *)
{
    _infectionListWindow->show();
    _infectionListWindow->raise();
    _infectionListWindow->activateWindow();
}

void KorvaneVarden_AppDelegate::removeSelectedFromInfectedList(QObject *)
{
    hideFloatingPathWindow(this);
    QXTInfectedViewArrayController *list = _infectionListWindow->dataSource();
    list->remove();
    list->clearSelection();
}

void KorvaneVarden_AppDelegate::clearInfectedList(QObject *)
{
    try {
        _infectionListWindow->dataSource()->removeAllObjects();
        _throbberWatchingImage = NamedImage::imageNamed(QStringLiteral("watching"));
        _throbberStatusItem->setImage(_throbberWatchingImage);
    } catch (const std::exception &) {
        SystemLog::log(QStringLiteral("Caught a crash here (clearInfectedList:). Hopefully we can just carry on..."));
    }
    hideFloatingPathWindow(this);
}

void KorvaneVarden_AppDelegate::userNotificationCenterDidActivateNotification()
{
    showInfectionListWindow(this);
}

void KorvaneVarden_AppDelegate::deleteFile(QObject *)
{
    _infectedFileActions->deleteFile();
}

void KorvaneVarden_AppDelegate::quarantineFile(QObject *)
{
    _infectedFileActions->quarantineFile();
}

bool KorvaneVarden_AppDelegate::quarantineFileAtIndex(int row)
{
    return _infectedFileActions->quarantineFileAtIndex(row);
}

void KorvaneVarden_AppDelegate::putBack(QObject *)
{
    _infectedFileActions->putBack();
}

void KorvaneVarden_AppDelegate::revealInFinder(QObject *)
{
    _infectedFileActions->revealInFinder();
}

int KorvaneVarden_AppDelegate::checkIfLooksLikeMailAndPromptForFile(const QString &path)
{
    return _infectedFileActions->checkIfLooksLikeMailAndPromptForFile(path);
}

void KorvaneVarden_AppDelegate::showInfectedPath(QObject *)
{
    // A click into the popup closes it, once the click is handled.
    if (QXAttachedWindow *popup = _pathPopup->showForSelectedRow())
        connect(
            popup, &QXAttachedWindow::didBecomeKey, this, [this] { hideFloatingPathWindow(nullptr); },
            Qt::QueuedConnection);
}

void KorvaneVarden_AppDelegate::hideFloatingPathWindow(QObject *)
{
    _pathPopup->hide();
}

QXAttachedWindow *KorvaneVarden_AppDelegate::attachedWindow() const
{
    return _pathPopup->attachedWindow();
}

QWidget *KorvaneVarden_AppDelegate::popupFloaterView() const
{
    return _pathPopup->popupFloaterView();
}

QLabel *KorvaneVarden_AppDelegate::popupFloaterTextField() const
{
    return _pathPopup->popupFloaterTextField();
}
