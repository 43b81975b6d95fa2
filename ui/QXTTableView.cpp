#include "QXTTableView.h"

#include "QXTInfectedViewArrayController.h"
#include "platform/Localization.h"
#include "platform/SystemBeep.h"
#include "platform/SystemLog.h"

#include <QAction>
#include <QClipboard>
#include <QGuiApplication>
#include <QHeaderView>
#include <QKeyEvent>

#include <algorithm>

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
    setWordWrap(false);
    verticalHeader()->hide();
    horizontalHeader()->setStretchLastSection(true);
}

QList<int> QXTTableView::selectedRowNumbers() const
{
    QList<int> rows;
    if (!selectionModel())
        return rows;
    for (const QModelIndex &index : selectionModel()->selectedRows())
        rows.append(index.row());
    std::sort(rows.begin(), rows.end());
    return rows;
}

bool QXTTableView::validateMenuItem(const QAction *item) const
{
    const QString action = item->data().toString();
    if (action == QLatin1String("copy:"))
        return !selectedRowNumbers().isEmpty();
    if (action == QLatin1String("selectAll:"))
        return model() && model()->rowCount() > 0;
    return false;
}

QString QXTTableView::headerLineFromColumnTitles() const
{
    QString line;
    for (int column = 0; column < model()->columnCount(); ++column)
        line += model()->headerData(column, Qt::Horizontal).toString() + QLatin1Char('\t');
    line.chop(1);
    return line + QLatin1Char('\n');
}

QString QXTTableView::textForSelectedRows() const
{
    QString text;
    const QList<int> rows = selectedRowNumbers();
    auto item = [this](int row) {
        return model()->data(model()->index(row, 0), QXTInfectedViewArrayController::ItemRole).toMap();
    };
    auto value = [](const QVariantMap &record, const char *key) { return record.value(QLatin1String(key)).toString(); };

    switch (_tag) {
    case 0:
        text = QStringLiteral("%1\t%2\t%3\n")
                   .arg(Localization::text("FILE_NAME"), Localization::text("INFECTION_NAME"),
                        Localization::text("STATUS"));
        for (int row : rows) {
            const QVariantMap record = item(row);
            text += QStringLiteral("%1\t%2\t%3\n")
                        .arg(value(record, "filePath"), value(record, "infectionName"), value(record, "status"));
        }
        break;
    case 1:
        text = headerLineFromColumnTitles();
        for (int row : rows) {
            const QVariantMap record = item(row);
            text += QStringLiteral("%1\t%2\t%3\t%4\n")
                        .arg(value(record, "excludePattern"), value(record, "excludeEnabled"),
                             value(record, "excludeRegEx"), value(record, "excludeComments"));
        }
        break;
    case 2:
        text = headerLineFromColumnTitles();
        for (int row : rows) {
            const QVariantMap record = item(row);
            text += QStringLiteral("%1\t%2\n").arg(value(record, "pathName"), value(record, "WatchSubdirs"));
        }
        break;
    default:
        break;
    }
    return text;
}

void QXTTableView::copy()
{
    if (selectedRowNumbers().isEmpty()) {
        SystemBeep::beep();
        return;
    }
    const QString text = textForSelectedRows();
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->setText(text);
    if (clipboard->text() != text)
        SystemLog::log(QStringLiteral("failed to write pasteboard contents:\n%1").arg(text));
}

void QXTTableView::keyPressEvent(QKeyEvent *event)
{
    if (event->matches(QKeySequence::Copy)) {
        copy();
        return;
    }
    QTableView::keyPressEvent(event);
}
