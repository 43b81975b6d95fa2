#include "EnablingRules.h"

#include "EnablingRulesDelegate.h"
#include "InfectedItemsWindow.h"
#include "QXTInfectedViewArrayController.h"
#include "QXTTableView.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/SystemBeep.h"
#include "platform/SystemLog.h"

#include <QAction>
#include <QFileInfo>

#include <algorithm>
#include <exception>

namespace {

bool logFileExists(const QString &path)
{
    return !path.isEmpty() && QFileInfo(path).isFile();
}

} // namespace

EnablingRules::EnablingRules(EnablingRulesDelegate *delegate)
    : _delegate(delegate)
{}

QString EnablingRules::korvaneScanLogPath(const QString &scanLogPath)
{
    QString path = scanLogPath;
    return path.replace(QStringLiteral("KorvaneVarden-scan.log"), QStringLiteral("korvane-scan.log"));
}

bool EnablingRules::validateMenuItem(const QAction *item) const
{
    if (_delegate->startingUp())
        return false;
    const QString action = item->data().toString();
    return guarded([&] { return menuRule(action, item); });
}

bool EnablingRules::menuRule(const QString &action, const QAction *item) const
{
    if (action == QLatin1String("copy:") || action == QLatin1String("selectAll:")) {
        // Only the focused table handles these.
        const QXTTableView *table = _delegate->infectionListWindow()->tableView();
        return table->hasFocus() && table->validateMenuItem(item);
    }
    if (action == QLatin1String("doNothing:"))
        return _delegate->watching();
    if (action == QLatin1String("doNothingForActionMenu:"))
        return _delegate->infectionListWindow()->isActiveWindow();

    QXUtils *utils = _delegate->utils();
    if (action == QLatin1String("updateDefs:"))
        return !utils->scanning() && !utils->updating();
    if (action == QLatin1String("startWatching:"))
        return !_delegate->watching();
    if (action == QLatin1String("stopWatching:") || action == QLatin1String("restartWatching:"))
        return _delegate->watching();
    if (action == QLatin1String("showInfectionListWindow:") || action == QLatin1String("clearInfectedList:"))
        return rowCount() > 0;
    if (action == QLatin1String("openScanLog:"))
        return logFileExists(utils->pathToScanLog());
    if (action == QLatin1String("openKorvaneScanLog:"))
        return logFileExists(korvaneScanLogPath(utils->pathToScanLog()));
    if (action == QLatin1String("openUpdateLog:"))
        return logFileExists(utils->updateLogPath());
    if (action == QLatin1String("abortScans:"))
        return utils->scanning();
    if (action == QLatin1String("revealInFinder:") || action == QLatin1String("showInfectedPath:")
        || action == QLatin1String("removeSelectedFromInfectedList:"))
        return rowSelected();
    if (action == QLatin1String("deleteFile:"))
        return rowSelected() && anySelectedOutsideTrash();
    if (action == QLatin1String("quarantineFile:"))
        return rowSelected() && hasQuarantineFolder() && anySelectedUntouched();
    if (action == QLatin1String("putBack:"))
        return rowSelected() && anySelectedCanGoBack();
    // about:, openFolder:, addRemoveFolders:, launchKorvane:, quit: and the rest.
    return true;
}

// Unlike the menus, the toolbar stays usable while the agent starts up.
bool EnablingRules::validateToolbarItem(const QAction *item) const
{
    const QString identifier = item->objectName();
    const QString action = item->data().toString();
    return guarded([&] { return toolbarRule(identifier, action); });
}

bool EnablingRules::toolbarRule(const QString &identifier, const QString &action) const
{
    if (action == QLatin1String("clearInfectedList:") && rowCount() == 0)
        return false;
    if (identifier == ToolbarItemIdentifier::reveal)
        return rowSelected();
    if (identifier == ToolbarItemIdentifier::quarantine) {
        if (!rowSelected() || !hasQuarantineFolder() || selectedObjects().isEmpty())
            return false;
        return anySelectedUntouched();
    }
    if (identifier != ToolbarItemIdentifier::trash)
        return true;
    if (!rowSelected() || selectedObjects().isEmpty())
        return false;
    return anySelectedOutsideTrash();
}

bool EnablingRules::guarded(const std::function<bool()> &rule)
{
    try {
        return rule();
    } catch (const std::exception &fault) {
        SystemLog::log(QString::fromUtf8(fault.what()));
        for (int beep = 0; beep < 3; ++beep)
            SystemBeep::beep();
        return true;
    }
}

int EnablingRules::rowCount() const
{
    return _delegate->infectionListWindow()->dataSource()->rowCount();
}

bool EnablingRules::rowSelected() const
{
    return !_delegate->infectionListWindow()->dataSource()->selectionIndexes().isEmpty();
}

QList<InfectedItem> EnablingRules::selectedObjects() const
{
    return _delegate->infectionListWindow()->dataSource()->selectedObjects();
}

bool EnablingRules::hasQuarantineFolder() const
{
    return _delegate->utils()->readPreferenceForKey(QStringLiteral("QuarantineFolder")).isValid();
}

bool EnablingRules::anySelectedUntouched() const
{
    const QList<InfectedItem> items = selectedObjects();
    return std::any_of(items.begin(), items.end(), [](const InfectedItem &item) {
        return item.value(QStringLiteral("status")).toString().isEmpty();
    });
}

bool EnablingRules::anySelectedOutsideTrash() const
{
    QStringList paths;
    for (const InfectedItem &item : selectedObjects())
        paths << item.value(QStringLiteral("filePath")).toString();
    return _delegate->utils()->anyOutsideTrash(paths);
}

bool EnablingRules::anySelectedCanGoBack() const
{
    const QList<InfectedItem> items = selectedObjects();
    return std::any_of(items.begin(), items.end(), [](const InfectedItem &item) {
        const QString original = item.value(QStringLiteral("originalFilePath")).toString();
        return !original.isEmpty() && original != item.value(QStringLiteral("filePath")).toString();
    });
}
