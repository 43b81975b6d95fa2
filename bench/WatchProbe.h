#pragma once

#include <QString>

// The bench program re-executed in a process of its own, so that what it
// reports of its memory and CPU belongs to one watch alone. Each mode prints
// key=value lines on stdout for the parent to read.
class WatchProbe
{
public:
    // The folder watcher the agent uses, alone under a QCoreApplication: time
    // from start to setupFinished, memory before and after, the longest stall
    // of the main thread meanwhile. Folders whose path below tree holds
    // excludedText are left out, as a user's exclusion leaves them out.
    static int watchTree(const QString &tree, const QString &excludedText = {});
    // The whole agent watching tree, then left alone for the given time: the
    // CPU it used meanwhile and its memory.
    static int idleAgent(const QString &tree, const QString &enginePath, int seconds);
};
