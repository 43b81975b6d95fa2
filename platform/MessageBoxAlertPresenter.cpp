#include "MessageBoxAlertPresenter.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>

int MessageBoxAlertPresenter::runModal(const Alert &alert)
{
    QMessageBox box;
    box.setIcon(QMessageBox::Warning);
    box.setWindowTitle(QApplication::applicationDisplayName());
    box.setText(alert.messageText);
    box.setInformativeText(alert.informativeText);
    QPushButton *defaultButton = box.addButton(
        alert.defaultButton.isEmpty() ? QStringLiteral("OK") : alert.defaultButton, QMessageBox::AcceptRole);
    if (!alert.alternateButton.isEmpty())
        box.addButton(alert.alternateButton, QMessageBox::RejectRole);
    QPushButton *otherButton = nullptr;
    if (!alert.otherButton.isEmpty())
        otherButton = box.addButton(alert.otherButton, QMessageBox::DestructiveRole);
    box.setDefaultButton(defaultButton);
    // The default is the safe answer: Escape or closing the box must not
    // abort scans or move a mail file.
    box.setEscapeButton(defaultButton);
    // An agent without a visible window must still bring its alert forward.
    box.setWindowFlag(Qt::WindowStaysOnTopHint);
    box.exec();

    QAbstractButton *clicked = box.clickedButton();
    if (clicked == defaultButton)
        return DefaultReturn;
    if (otherButton && clicked == otherButton)
        return OtherReturn;
    return AlternateReturn;
}
