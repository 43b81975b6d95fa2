// The status item's menu and the infected list's action menu.
#include "KorvaneVarden_AppDelegate.h"

#include "platform/BundleInfo.h"
#include "platform/Localization.h"
#include "platform/StatusItem.h"
#include "platform/SystemBeep.h"
#include "platform/Workspace.h"
#include "ui/AlternateMenuItem.h"
#include "ui/QXTTableView.h"

#include <QAction>
#include <QFileInfo>
#include <QMenu>
#include <QMessageBox>

#include <functional>

void KorvaneVarden_AppDelegate::launchKorvane(QObject *)
{
    Workspace::sharedWorkspace()->launchAppWithBundleIdentifier(BundleInfo::companionIdentifier());
}

void KorvaneVarden_AppDelegate::setupVardenMenus()
{
    // Each item names its operation in its data, which the enabling rules read.
    const auto add = [this](QMenu *menu, const char *key, const char *action, auto operation) {
        QAction *item = menu->addAction(Localization::text(key));
        item->setData(QString::fromLatin1(action));
        connect(item, &QAction::triggered, this, [this, item, operation] { std::invoke(operation, this, item); });
        return item;
    };
    const auto addSubmenu = [this](QMenu *menu, QMenu *submenu, const char *key, const char *action, auto operation) {
        QAction *item = menu->addMenu(submenu);
        item->setText(Localization::text(key));
        item->setData(QString::fromLatin1(action));
        connect(item, &QAction::triggered, this, [this, item, operation] { std::invoke(operation, this, item); });
    };
    using Self = KorvaneVarden_AppDelegate;

    _actionMenu = std::make_unique<QMenu>();
    QMenu *actions = _actionMenu.get();
    add(actions, "SHOW_PATH", "showInfectedPath:", &Self::showInfectedPath);
    add(actions, "TOOLBAR_REVEAL", "revealInFinder:", &Self::revealInFinder);
    add(actions, "TOOLBAR_QUARANTINE", "quarantineFile:", &Self::quarantineFile);
    add(actions, "TOOLBAR_DELETE", "deleteFile:", &Self::deleteFile);
    actions->addSeparator();
    add(actions, "PUT_BACK", "putBack:", &Self::putBack);
    actions->addSeparator();
    add(actions, "REMOVE_FROM_LIST", "removeSelectedFromInfectedList:", &Self::removeSelectedFromInfectedList);
    add(actions, "TOOLBAR_INFECTIONLIST", "clearInfectedList:", &Self::clearInfectedList);
    actions->addSeparator();
    // These two belong to the table, which enables them only while it has the focus.
    QAction *selectAll = actions->addAction(Localization::text("SELECT_ALL"));
    selectAll->setData(QStringLiteral("selectAll:"));
    connect(selectAll, &QAction::triggered, _infectionListTableView, &QXTTableView::selectAll);
    QAction *copy = actions->addAction(Localization::text("COPY"));
    copy->setData(QStringLiteral("copy:"));
    connect(copy, &QAction::triggered, _infectionListTableView, &QXTTableView::copy);

    _infectionListTableView->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(_infectionListTableView, &QWidget::customContextMenuRequested, this,
            [this](const QPoint &at) { _actionMenu->popup(_infectionListTableView->viewport()->mapToGlobal(at)); });

    _mainMenu = new QMenu;
    QMenu *menu = _mainMenu;
    add(menu, "ABOUT_MENU_ITEM", "about:", &Self::about);
    menu->addSeparator();
    addSubmenu(menu, _foldersBeingWatchedSubmenu, "FOLDERS_BEING_WATCHED", "doNothing:", &Self::doNothing);
    add(menu, "ADD_REMOVE_MENU_ITEM",
        "addRemoveFolders:", [](Self *self, QObject *sender) { self->addRemoveFolders(sender); });
    menu->addSeparator();
    add(menu, "LAUNCH_KORVANE", "launchKorvane:", &Self::launchKorvane);
    add(menu, "UPDATE_VIRUS_DEFINITIONS", "updateDefs:", &Self::updateDefs);
    menu->addSeparator();
    add(menu, "START_WATCHING", "startWatching:", &Self::startWatching);
    add(menu, "STOP_WATCHING", "stopWatching:", &Self::stopWatching);
    add(menu, "RESTART_WATCHING", "restartWatching:", &Self::restartWatching);
    menu->addSeparator();
    add(menu, "SHOW_INFECTED_ITEMS", "showInfectionListWindow:", &Self::showInfectionListWindow);
    addSubmenu(menu, actions, "ACTION", "doNothingForActionMenu:", &Self::doNothingForActionMenu);
    menu->addSeparator();
    QAction *scanLog = add(menu, "OPEN_SCAN_LOG", "openScanLog:", &Self::openScanLog);
    QAction *korvaneScanLog = add(menu, "OPEN_KORVANE_SCAN_LOG", "openKorvaneScanLog:", &Self::openKorvaneScanLog);
    new AlternateMenuItem(menu, scanLog, korvaneScanLog);
    add(menu, "OPEN_UPDATE_LOG", "openUpdateLog:", &Self::openUpdateLog);
    menu->addSeparator();
    add(menu, "ABORT_SCANS_MENU_ITEM", "abortScans:", &Self::abortScans);
    add(menu, "QUIT_MENU_ITEM", "quit:", &Self::quit);

    for (QMenu *validated : {_mainMenu, actions, _foldersBeingWatchedSubmenu})
        connect(validated, &QMenu::aboutToShow, this, [this, validated] { validateMenu(validated); });
    _throbberStatusItem->setMenu(_mainMenu);
}

void KorvaneVarden_AppDelegate::validateMenu(QMenu *menu)
{
    for (QAction *item : menu->actions()) {
        if (!item->isSeparator())
            item->setEnabled(validateMenuItem(item));
    }
}

bool KorvaneVarden_AppDelegate::validateMenuItem(QAction *item)
{
    return _enablingRules.validateMenuItem(item);
}

void KorvaneVarden_AppDelegate::doNothing(QObject *)
{}
void KorvaneVarden_AppDelegate::doNothingForActionMenu(QObject *)
{}

void KorvaneVarden_AppDelegate::about(QObject *)
{
    if (!_aboutBox) {
        const QString text = QStringLiteral("<b>KorvaneVarden</b><p>%1</p>").arg(BundleInfo::shortVersionString());
        _aboutBox = new QMessageBox(QMessageBox::NoIcon, QStringLiteral("KorvaneVarden"), text, QMessageBox::Ok);
        _aboutBox->setIconPixmap(_throbberWatchingImage.pixmap(64));
        _aboutBox->setAttribute(Qt::WA_DeleteOnClose);
        _aboutBox->setModal(false);
    }
    _aboutBox->show();
    _aboutBox->raise();
    _aboutBox->activateWindow();
}

void KorvaneVarden_AppDelegate::openLogFile(const QString &path)
{
    if (path.isEmpty() || !QFileInfo(path).isFile() || !Workspace::sharedWorkspace()->openFile(path))
        SystemBeep::beep();
}

void KorvaneVarden_AppDelegate::openScanLog(QObject *)
{
    openLogFile(_utils->pathToScanLog());
}

void KorvaneVarden_AppDelegate::openKorvaneScanLog(QObject *)
{
    openLogFile(EnablingRules::korvaneScanLogPath(_utils->pathToScanLog()));
}

void KorvaneVarden_AppDelegate::openUpdateLog(QObject *)
{
    openLogFile(_utils->updateLogPath());
}
