#include "QXTInfectedViewArrayController.h"

#include "platform/UserFolders.h"

#include <QItemSelectionModel>

#include <algorithm>

QXTInfectedViewArrayController::QXTInfectedViewArrayController(QObject *parent)
    : QAbstractTableModel(parent)
    , _columnTitles(columnKeys())
{}

const QStringList &QXTInfectedViewArrayController::columnKeys()
{
    static const QStringList keys{QStringLiteral("fileName"), QStringLiteral("infectionName"),
                                  QStringLiteral("status")};
    return keys;
}

void QXTInfectedViewArrayController::addObject(const InfectedItem &item)
{
    const int row = int(_items.size());
    beginInsertRows({}, row, row);
    _items.append(item);
    countPath(item, 1);
    endInsertRows();
}

bool QXTInfectedViewArrayController::containsFilePath(const QString &path) const
{
    return _pathCounts.contains(path);
}

void QXTInfectedViewArrayController::countPath(const InfectedItem &item, int change)
{
    const QString path = item.value(QStringLiteral("filePath")).toString();
    if ((_pathCounts[path] += change) <= 0)
        _pathCounts.remove(path);
}

void QXTInfectedViewArrayController::removeObjectsAtRows(QList<int> rows)
{
    // From the bottom up, so the rows still to remove keep their numbers.
    std::sort(rows.begin(), rows.end(), std::greater<int>());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    for (int row : rows) {
        if (row < 0 || row >= _items.size())
            continue;
        beginRemoveRows({}, row, row);
        countPath(_items.at(row), -1);
        _items.removeAt(row);
        endRemoveRows();
    }
}

void QXTInfectedViewArrayController::removeAllObjects()
{
    beginResetModel();
    _items.clear();
    _pathCounts.clear();
    endResetModel();
}

void QXTInfectedViewArrayController::replaceObjectAtRow(int row, const InfectedItem &item)
{
    if (row < 0 || row >= _items.size())
        return;
    countPath(_items.at(row), -1);
    _items[row] = item;
    countPath(item, 1);
    emit dataChanged(index(row, 0), index(row, columnCount() - 1));
}

void QXTInfectedViewArrayController::setSelectionModel(QItemSelectionModel *selection)
{
    _selection = selection;
}

QList<int> QXTInfectedViewArrayController::selectionIndexes() const
{
    QList<int> rows;
    if (!_selection)
        return rows;
    for (const QModelIndex &index : _selection->selectedRows())
        rows.append(index.row());
    std::sort(rows.begin(), rows.end());
    return rows;
}

QList<InfectedItem> QXTInfectedViewArrayController::selectedObjects() const
{
    QList<InfectedItem> items;
    for (int row : selectionIndexes())
        items.append(_items.value(row));
    return items;
}

void QXTInfectedViewArrayController::clearSelection()
{
    if (_selection)
        _selection->clear();
}

void QXTInfectedViewArrayController::remove()
{
    emit willRemoveSelectedObjects();
    removeObjectsAtRows(selectionIndexes());
}

void QXTInfectedViewArrayController::setColumnTitles(const QStringList &titles)
{
    _columnTitles = titles;
    emit headerDataChanged(Qt::Horizontal, 0, columnCount() - 1);
}

int QXTInfectedViewArrayController::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(_items.size());
}

int QXTInfectedViewArrayController::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(columnKeys().size());
}

QVariant QXTInfectedViewArrayController::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= _items.size() || index.column() >= columnCount())
        return {};
    const InfectedItem &item = _items.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
        return item.value(columnKeys().at(index.column())).toString();
    case Qt::ToolTipRole:
        // Any cell of a row shows where the file is now.
        return UserFolders::expandTilde(item.value(QStringLiteral("filePath")).toString());
    case ItemRole:
        return item;
    default:
        return {};
    }
}

QVariant QXTInfectedViewArrayController::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section >= 0 && section < _columnTitles.size())
        return _columnTitles.at(section);
    return QAbstractTableModel::headerData(section, orientation, role);
}

Qt::ItemFlags QXTInfectedViewArrayController::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return Qt::NoItemFlags;
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemNeverHasChildren;
}
