#include "AlternateMenuItem.h"

#include <QAction>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMenu>

AlternateMenuItem::AlternateMenuItem(QMenu *menu, QAction *primary, QAction *alternate)
    : QObject(menu)
    , _primary(primary)
    , _alternate(alternate)
{
    showFor(Qt::NoModifier);
    connect(menu, &QMenu::aboutToShow, this, [this] { showFor(QGuiApplication::queryKeyboardModifiers()); });
    menu->installEventFilter(this);
}

bool AlternateMenuItem::eventFilter(QObject *, QEvent *event)
{
    if (event->type() != QEvent::KeyPress && event->type() != QEvent::KeyRelease)
        return false;
    // Whether a modifier key's own event counts it as held differs between
    // window systems, so the key itself decides.
    const auto *key = static_cast<QKeyEvent *>(event);
    Qt::KeyboardModifiers held = key->modifiers();
    const bool pressed = event->type() == QEvent::KeyPress;
    if (key->key() == Qt::Key_Shift)
        held.setFlag(Qt::ShiftModifier, pressed);
    else if (key->key() == Qt::Key_Alt)
        held.setFlag(Qt::AltModifier, pressed);
    showFor(held);
    return false;
}

void AlternateMenuItem::showFor(Qt::KeyboardModifiers held)
{
    const bool alternate = (held & modifiers) == modifiers;
    _primary->setVisible(!alternate);
    _alternate->setVisible(alternate);
}
