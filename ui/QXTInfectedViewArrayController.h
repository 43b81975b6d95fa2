#pragma once

#include "InfectedItem.h"

#include <QAbstractTableModel>
#include <QItemSelectionModel>
#include <QHash>
#include <QList>
#include <QPointer>
#include <QStringList>

// The infected items in the order they were added, as a three-column model
// (file name, infection name, status), with the selection the table shares.
// Rows cannot be dragged out of the table or dropped on it.
class QXTInfectedViewArrayController : public QAbstractTableModel
{
    Q_OBJECT
public:
    // Each row's whole item, for copying and for the file actions.
    static constexpr int ItemRole = Qt::UserRole + 1;

    explicit QXTInfectedViewArrayController(QObject *parent = nullptr);

    QList<InfectedItem> arrangedObjects() const { return _items; }
    void addObject(const InfectedItem &item);
    // Whether a row's "filePath" is path; does not walk the rows.
    bool containsFilePath(const QString &path) const;
    void removeObjectsAtRows(QList<int> rows);
    void removeAllObjects();
    // Keeps the row, changes its values (the file actions move files).
    void replaceObjectAtRow(int row, const InfectedItem &item);

    // The selection lives in the table's selection model.
    void setSelectionModel(QItemSelectionModel *selection);
    QItemSelectionModel *selectionModel() const { return _selection; }
    // Selected rows in list order.
    QList<int> selectionIndexes() const;
    QList<InfectedItem> selectedObjects() const;
    void clearSelection();
    // Removes the selected items, after hiding the path popup.
    void remove();

    void setColumnTitles(const QStringList &titles);
    static const QStringList &columnKeys();

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    Qt::DropActions supportedDropActions() const override { return Qt::IgnoreAction; }
    Qt::DropActions supportedDragActions() const override { return Qt::IgnoreAction; }

signals:
    // Asks the owner to hide the path popup before rows go away.
    void willRemoveSelectedObjects();

private:
    void countPath(const InfectedItem &item, int change);

    QList<InfectedItem> _items;
    // Rows per "filePath", so that a burst of reports is not quadratic.
    QHash<QString, int> _pathCounts;
    QStringList _columnTitles;
    QPointer<QItemSelectionModel> _selection;
};
