#pragma once

#include <QMainWindow>

class QXTInfectedViewArrayController;
class QXTTableView;
class QToolBar;

// The infected-items window with its three-column table and toolbar; the
// controller reaches them through its outlets.
class InfectedItemsWindow : public QMainWindow
{
    Q_OBJECT
public:
    explicit InfectedItemsWindow(QWidget *parent = nullptr);
    // Shows a list owned elsewhere, such as the rows of a scan on demand.
    explicit InfectedItemsWindow(QXTInfectedViewArrayController *dataSource, QWidget *parent = nullptr);

    QXTTableView *tableView() const { return _tableView; }
    QXTInfectedViewArrayController *dataSource() const { return _dataSource; }
    QToolBar *toolbar() const { return _toolbar; }

private:
    QXTTableView *_tableView;
    QXTInfectedViewArrayController *_dataSource;
    QToolBar *_toolbar;
};
