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
    // The burst ten times larger, with an agent of its own.
    bool runScale();

    // Runs the prefix's clamdscan with --no-summary; answers the wall time in
    // ms (negative when it did not finish) and the paths it found infected.
    static double clamdscan(const QString &enginePath, const QStringList &arguments, QStringList *found);

private:
    void measureLatency(BenchAgent &agent);
    void measureSlowWriters(BenchAgent &agent);
    // files written at once into the folder name, one in infectedEvery infected.
    void measureBurst(BenchAgent &agent, const QString &name, int files, int infectedEvery);
    // Budget the agent has beyond the engine's own time: the notification
    // latency and two ticks of the dispatcher.
    static double targetMs(double clamdscanMs);

    const QString _enginePath;
    const QString _watched;
    BenchTable &_table;
};
