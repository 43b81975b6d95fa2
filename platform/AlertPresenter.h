#pragma once

#include <QString>

// Modal alerts with a default and an alternate button. The answer follows
// the original platform: the default button answers 1, the alternate 0, the
// other button -1. Escape and closing the alert answer as the default
// button, which is the safe one.
class AlertPresenter
{
public:
    enum Answer { OtherReturn = -1, AlternateReturn = 0, DefaultReturn = 1 };

    struct Alert
    {
        QString messageText;
        QString defaultButton;
        QString alternateButton;
        QString otherButton;
        QString informativeText;
    };

    virtual ~AlertPresenter() = default;

    static AlertPresenter *sharedPresenter();
    // Tests answer alerts with their own presenter; nullptr returns to the
    // real one.
    static void setSharedPresenter(AlertPresenter *presenter);

    virtual int runModal(const Alert &alert) = 0;
};
