#pragma once

#include "InfectedItem.h"

#include <QAbstractTableModel>
#include <QList>
#include <QStringList>

// The infected items in the order they were added, as a three-column model:
// file name, infection name, status.
class QXTInfectedViewArrayController : public QAbstractTableModel
{
    Q_OBJECT
public:
    explicit QXTInfectedViewArrayController(QObject *parent = nullptr);

    QList<InfectedItem> arrangedObjects() const { return _items; }
    void addObject(const InfectedItem &item);
    void removeObjectsAtRows(QList<int> rows);
    void removeAllObjects();
    // Keeps the row, changes its values (the file actions move files).
    void replaceObjectAtRow(int row, const InfectedItem &item);

    void setColumnTitles(const QStringList &titles);

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

    static const QStringList &columnKeys();

private:
    QList<InfectedItem> _items;
    QStringList _columnTitles;
};
