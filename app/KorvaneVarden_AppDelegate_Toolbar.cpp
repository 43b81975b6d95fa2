// The infected-items window's toolbar.
#include "KorvaneVarden_AppDelegate.h"

#include "platform/Localization.h"
#include "platform/NamedImage.h"
#include "platform/SystemBeep.h"
#include "platform/SystemLog.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QAction>
#include <QGuiApplication>
#include <QToolBar>
#include <QWindow>

void KorvaneVarden_AppDelegate::setupToolbar()
{
    try {
        _toolbar->setObjectName(QStringLiteral("My Document Toolbar Identifier"));
        _toolbar->setMovable(false);
        _toolbar->setFloatable(false);
        // No menu to hide it or change it.
        _toolbar->setContextMenuPolicy(Qt::PreventContextMenu);
        _toolbar->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
        for (const QString &identifier : toolbarDefaultItemIdentifiers(_toolbar)) {
            if (QAction *item = toolbarItemForItemIdentifier(_toolbar, identifier, true))
                _toolbar->addAction(item);
        }
    } catch (const std::exception &fault) {
        SystemLog::log(QString::fromUtf8(fault.what()));
        for (int beep = 0; beep < 3; ++beep)
            SystemBeep::beep();
        _toolbar->clear();
        _toolbar->hide();
        return;
    }

    // The buttons follow every change of the rows, their values and the selection.
    QXTInfectedViewArrayController *list = _infectionListWindow->dataSource();
    connect(list, &QAbstractItemModel::rowsInserted, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    connect(list, &QAbstractItemModel::rowsRemoved, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    connect(list, &QAbstractItemModel::modelReset, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    connect(list, &QAbstractItemModel::dataChanged, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    connect(list->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &KorvaneVarden_AppDelegate::validateToolbarItems);
    // Settings such as the quarantine folder change elsewhere: look again when the window comes up.
    connect(qGuiApp, &QGuiApplication::focusWindowChanged, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    validateToolbarItems();
}

QStringList KorvaneVarden_AppDelegate::toolbarDefaultItemIdentifiers(QToolBar *) const
{
    return {ToolbarItemIdentifier::reveal, ToolbarItemIdentifier::quarantine, ToolbarItemIdentifier::trash,
            ToolbarItemIdentifier::clearList};
}

QStringList KorvaneVarden_AppDelegate::toolbarAllowedItemIdentifiers(QToolBar *toolbar) const
{
    return toolbarDefaultItemIdentifiers(toolbar);
}

QAction *KorvaneVarden_AppDelegate::toolbarItemForItemIdentifier(QToolBar *toolbar, const QString &identifier, bool)
{
    struct Item
    {
        const QString &identifier;
        const char *label;
        const char *paletteLabel;
        const char *toolTip;
        const char *image;
        const char *action;
        void (KorvaneVarden_AppDelegate::*operation)(QObject *);
    };
    using Self = KorvaneVarden_AppDelegate;
    const Item items[] = {
        {ToolbarItemIdentifier::quarantine, "TOOLBAR_QUARANTINE", "TOOLBAR_QUARANTINE", "TOOLBAR_QUARANTINE_TOOLTIP",
         "Quarantine", "quarantineFile:", &Self::quarantineFile},
        {ToolbarItemIdentifier::trash, "TOOLBAR_DELETE", "TOOLBAR_DELETE", "TOOLBAR_DELETE_TOOLTIP", "Trash",
         "deleteFile:", &Self::deleteFile},
        {ToolbarItemIdentifier::reveal, "TOOLBAR_REVEAL", "TOOLBAR_REVEAL_FINDER", "TOOLBAR_REVEAL_TOOLTIP",
         "MoreInFinder", "revealInFinder:", &Self::revealInFinder},
        {ToolbarItemIdentifier::clearList, "TOOLBAR_INFECTIONLIST", "TOOLBAR_INFECTIONLIST",
         "TOOLBAR_INFECTIONLIST_TOOLTIP", "ClearList", "clearInfectedList:", &Self::clearInfectedList},
    };
    for (const Item &entry : items) {
        if (entry.identifier != identifier)
            continue;
        auto *item = new QAction(toolbar);
        item->setObjectName(identifier);
        // The button shows the label; the palette label names the item
        // wherever it is listed, as in the toolbar's overflow menu.
        item->setIconText(Localization::text(entry.label));
        item->setText(Localization::text(entry.paletteLabel));
        item->setToolTip(Localization::text(entry.toolTip));
        item->setIcon(NamedImage::imageNamed(QString::fromLatin1(entry.image)));
        item->setData(QString::fromLatin1(entry.action));
        const auto operation = entry.operation;
        connect(item, &QAction::triggered, this, [this, item, operation] { (this->*operation)(item); });
        return item;
    }
    return nullptr;
}

bool KorvaneVarden_AppDelegate::validateToolbarItem(QAction *item)
{
    return _enablingRules.validateToolbarItem(item);
}

void KorvaneVarden_AppDelegate::validateToolbarItems()
{
    for (QAction *item : _toolbar->actions())
        item->setEnabled(validateToolbarItem(item));
}
