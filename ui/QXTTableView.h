#pragma once

#include <QTableView>

class QAction;

// The tables of the agent's windows. The tag chooses the text format of the
// copy command: 0 infected items, 1 exclusion patterns, 2 watched folders.
class QXTTableView : public QTableView
{
    Q_OBJECT
public:
    explicit QXTTableView(QWidget *parent = nullptr);

    int tag() const { return _tag; }
    void setTag(int tag) { _tag = tag; }

    // Enables the "copy:" and "selectAll:" items (named by the action's
    // data) by the table's own rule; every other item is disabled here.
    bool validateMenuItem(const QAction *item) const;
    void copy();
    // The text that copy() puts on the clipboard for the selected rows.
    QString textForSelectedRows() const;

protected:
    void keyPressEvent(QKeyEvent *event) override;

private:
    QList<int> selectedRowNumbers() const;
    QString headerLineFromColumnTitles() const;

    int _tag = 0;
};
