#include "QXTTableView.h"

#include "platform/SystemLog.h"

#include <QHeaderView>

QXTTableView::QXTTableView(QWidget *parent)
    : QTableView(parent)
{
    SystemLog::log(QStringLiteral("QXTTableView initWithFrame"));
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setDragEnabled(false);
    setAcceptDrops(false);
    setDragDropMode(QAbstractItemView::NoDragDrop);
    setAlternatingRowColors(true);
    setShowGrid(false);
    verticalHeader()->hide();
    horizontalHeader()->setStretchLastSection(true);
}
