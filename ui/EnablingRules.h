#pragma once

#include "InfectedItem.h"

#include <QList>
#include <QString>

#include <functional>

class EnablingRulesDelegate;
class QAction;

// The toolbar's item identifiers; its rules tell the items apart by them.
namespace ToolbarItemIdentifier {
inline const QString reveal = QStringLiteral("ViewInFinder Item Identifier");
inline const QString quarantine = QStringLiteral("Quarantine Item Identifier");
inline const QString trash = QStringLiteral("Delete Item Identifier");
inline const QString clearList = QStringLiteral("Clear List Item Identifier");
} // namespace ToolbarItemIdentifier

// When each item of the status menu, the action menu and the infected-list
// toolbar can be chosen. Menu items are told apart by the operation named in
// their data ("deleteFile:"), toolbar items by their object name (the item
// identifier) and, for clearing the list, their operation.
class EnablingRules
{
public:
    explicit EnablingRules(EnablingRulesDelegate *delegate);

    bool validateMenuItem(const QAction *item) const;
    bool validateToolbarItem(const QAction *item) const;

    // The companion's scan log lies beside ours.
    static QString korvaneScanLogPath(const QString &scanLogPath);

private:
    bool menuRule(const QString &action, const QAction *item) const;
    bool toolbarRule(const QString &identifier, const QString &action) const;
    // A standard exception out of a rule is logged with three beeps and
    // leaves the item enabled; Qt itself throws none.
    static bool guarded(const std::function<bool()> &rule);

    int rowCount() const;
    bool rowSelected() const;
    QList<InfectedItem> selectedObjects() const;
    bool hasQuarantineFolder() const;
    bool anySelectedUntouched() const;
    bool anySelectedOutsideTrash() const;
    bool anySelectedCanGoBack() const;

    EnablingRulesDelegate *_delegate;
};
