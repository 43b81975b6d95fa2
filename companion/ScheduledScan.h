#pragma once

#include <QString>
#include <QStringList>

// The systemd user timer and service that scan the chosen folders with
// `Korvane --scan` at a chosen hour, daily or on one weekday.
class ScheduledScan
{
public:
    struct Schedule
    {
        bool enabled = false;
        // As written: absolute, or "~/..." for folders in the home folder.
        QStringList folders;
        // 0 every day, 1 Monday ... 7 Sunday.
        int weekday = 0;
        int hour = 12;
        bool operator==(const Schedule &) const = default;
    };

    // $XDG_CONFIG_HOME/systemd/user/korvane-scheduled-scan.{service,timer}
    static QString servicePath();
    static QString timerPath();
    static bool isWritten();

    // Empty when the schedule can be written; otherwise what is wrong.
    static QString problem(const Schedule &schedule);
    static QString serviceText(const Schedule &schedule, const QString &korvaneProgram);
    static QString timerText(const Schedule &schedule);

    // Writes and enables the units for an enabled schedule, or disables and
    // removes them. Answers false, with the reason, when that failed; note
    // tells when no user manager runs, so the timer starts at the next login.
    // Units that already say the same are left alone.
    static bool apply(const Schedule &schedule, const QString &korvaneProgram, QString *error = nullptr,
                      QString *note = nullptr);
};
