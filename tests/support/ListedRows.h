#pragma once

#include "ui/InfectedItem.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QFileInfo>
#include <QItemSelectionModel>

// Lists a row as the agent would list a detection, selected unless told
// otherwise, and answers its index.
inline int addListedRow(QXTInfectedViewArrayController *list, const QString &path, const QString &status = {},
                        const QString &original = {}, bool selected = true)
{
    InfectedItem row{{"fileName", QFileInfo(path).fileName()},
                     {"filePath", path},
                     {"infectionName", "Korvane.Test.Eicar"},
                     {"status", status}};
    if (!original.isNull())
        row.insert("originalFilePath", original);
    list->addObject(row);
    const int index = list->rowCount() - 1;
    if (selected)
        list->selectionModel()->select(list->index(index, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
    return index;
}

// Adds rows to the selection, as a click with Ctrl held would.
inline void selectRows(QXTInfectedViewArrayController *list, std::initializer_list<int> rows)
{
    for (int row : rows)
        list->selectionModel()->select(list->index(row, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
}
