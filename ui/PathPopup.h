#pragma once

#include <QObject>
#include <QPointer>
#include <QPointF>

#include <memory>

class InfectedItemsWindow;
class QLabel;
class QWidget;
class QXAttachedWindow;

// The popup beside the infected-items window that shows the full path of
// the selected row, with its arrow on that row. At most one is shown; it
// follows the window when the window moves or is resized.
class PathPopup : public QObject
{
    Q_OBJECT
public:
    explicit PathPopup(InfectedItemsWindow *window, QObject *parent = nullptr);
    ~PathPopup() override;

    // Replaces a popup already shown by one for the first selected row.
    // Without a selection none is shown and nothing is returned.
    QXAttachedWindow *showForSelectedRow();
    void hide();

    QXAttachedWindow *attachedWindow() const { return _attachedWindow; }
    QWidget *popupFloaterView() const { return _popupFloaterView.get(); }
    QLabel *popupFloaterTextField() const { return _popupFloaterTextField; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QPointF pointBesideRow(int row) const;

    InfectedItemsWindow *_window;
    // Kept apart so that the filter, which still runs while the window is
    // being destroyed, never calls into the window.
    QObject *_table;
    std::unique_ptr<QWidget> _popupFloaterView;
    QLabel *_popupFloaterTextField;
    QPointer<QXAttachedWindow> _attachedWindow;
    int _row = -1;
};
