#pragma once

#include "ui/InfectedItem.h"

#include <QList>
#include <QString>

// What a scan run by the timer leaves when it found something: its rows in
// a file and a notification whose click opens them in Korvane's window. The
// sender of a notification must still run to hear the click, so it waits
// for the click, the notification's close, or a bounded time.
class ScheduledScanNotice
{
public:
    // $XDG_STATE_HOME/korvane/scheduled-scan-results.json
    static QString resultsPath();
    // Writes the rows to path; answers an empty string, or why not.
    static QString keep(const QList<InfectedItem> &rows, const QString &path = resultsPath());
    // Shows the notification and waits; a click starts korvaneProgram with
    // --show-results path. Answers whether it was clicked.
    static bool notifyAndWait(const QString &text, const QString &korvaneProgram, int waitMs,
                              const QString &path = resultsPath());
};
