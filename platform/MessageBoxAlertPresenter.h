#pragma once

#include "AlertPresenter.h"

// Alerts as QMessageBox dialogs.
class MessageBoxAlertPresenter : public AlertPresenter
{
public:
    int runModal(const Alert &alert) override;
};
