#pragma once

#include <QTableView>

// The table of the infected-items window. Its tag chooses the text format
// of its copy command: 0 infected items, 1 exclusion patterns, 2 watched
// folders.
class QXTTableView : public QTableView
{
    Q_OBJECT
public:
    explicit QXTTableView(QWidget *parent = nullptr);

    int tag() const { return _tag; }
    void setTag(int tag) { _tag = tag; }

private:
    int _tag = 0;
};
