#pragma once

#include <QString>
#include <QStringList>

class BenchAgent;
class BenchTable;

// From files written into a watched folder to rows in the infected list, with
// one agent against the real daemon: single files one at a time, writers that
// hold their files open, and a burst beside a plain clamdscan of the same files
// and the daemon's own multi-threaded scan of their folder.
class DetectionBench
{
public:
    DetectionBench(const QString &enginePath, const QString &scratch, BenchTable &table);

    // False when the agent could not be started at all.
    bool run();

private:
    void measureLatency(BenchAgent &agent);
    void measureSlowWriters(BenchAgent &agent);
    void measureBurst(BenchAgent &agent);
    // Runs the prefix's clamdscan with --no-summary; answers the wall time in
    // ms (negative when it did not finish) and the paths it found infected.
    double clamdscan(const QStringList &arguments, QStringList *found) const;
    // Budget the agent has beyond the engine's own time: the notification
    // latency and two ticks of the dispatcher.
    static double targetMs(double clamdscanMs);

    const QString _enginePath;
    const QString _watched;
    BenchTable &_table;
};
