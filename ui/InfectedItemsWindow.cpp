#include "InfectedItemsWindow.h"

#include "QXTInfectedViewArrayController.h"
#include "QXTTableView.h"

#include <QHeaderView>
#include <QToolBar>

InfectedItemsWindow::InfectedItemsWindow(QWidget *parent)
    : InfectedItemsWindow(nullptr, parent)
{}

InfectedItemsWindow::InfectedItemsWindow(QXTInfectedViewArrayController *dataSource, QWidget *parent)
    : QMainWindow(parent)
    , _tableView(new QXTTableView(this))
    , _dataSource(dataSource ? dataSource : new QXTInfectedViewArrayController(this))
    , _toolbar(new QToolBar(this))
{
    setObjectName(QStringLiteral("infectionListWindow"));
    _tableView->setModel(_dataSource);
    _dataSource->setSelectionModel(_tableView->selectionModel());
    _tableView->setTag(0);
    _tableView->horizontalHeader()->resizeSection(0, 220);
    _tableView->horizontalHeader()->resizeSection(1, 220);
    setCentralWidget(_tableView);
    _toolbar->setObjectName(QStringLiteral("toolbar"));
    _toolbar->setMovable(false);
    _toolbar->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
    addToolBar(_toolbar);
    resize(640, 320);
}
