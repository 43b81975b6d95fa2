#pragma once

#include "platform/AlertPresenter.h"
#include "platform/SystemBeep.h"

#include <QList>
#include <functional>

// Answers alerts from a queue (the default button when it runs dry) and
// remembers each alert; counts beeps. Installs itself while it lives.
class AnsweringAlertPresenter : public AlertPresenter, public SystemBeep
{
public:
    AnsweringAlertPresenter()
    {
        AlertPresenter::setSharedPresenter(this);
        SystemBeep::setSharedBeep(this);
    }
    ~AnsweringAlertPresenter() override
    {
        AlertPresenter::setSharedPresenter(nullptr);
        SystemBeep::setSharedBeep(nullptr);
    }

    int runModal(const Alert &alert) override
    {
        alerts.append(alert);
        if (whileOpen)
            whileOpen();
        return answers.isEmpty() ? int(DefaultReturn) : answers.takeFirst();
    }
    void play() override { ++beeps; }

    // Runs while the alert is open, as the events of a modal loop do.
    std::function<void()> whileOpen;
    QList<int> answers;
    QList<Alert> alerts;
    int beeps = 0;
};
