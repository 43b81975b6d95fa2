#pragma once

#include <QObject>

class QAction;
class QMenu;

// Qt menus have no alternate items. This shows the alternate in place of the
// primary item while Shift and Alt are both held with the menu open: looked
// at when the menu opens and again at every key press or release in it.
class AlternateMenuItem : public QObject
{
    Q_OBJECT
public:
    // Lives as long as the menu.
    AlternateMenuItem(QMenu *menu, QAction *primary, QAction *alternate);

    static constexpr Qt::KeyboardModifiers modifiers = Qt::ShiftModifier | Qt::AltModifier;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void showFor(Qt::KeyboardModifiers held);

    QAction *_primary;
    QAction *_alternate;
};
