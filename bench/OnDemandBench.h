#pragma once

#include <QString>

class BenchTable;

// Scans on demand through Korvane's own scan (daemon road): a 10,000-file
// folder against the daemon's multiscan of the same folder, and what
// counting 100,000 more files beside it costs.
class OnDemandBench
{
public:
    OnDemandBench(const QString &enginePath, const QString &scratch, BenchTable &table);

    void run();

private:
    struct Scan
    {
        double ms = -1;
        // From the start until the counter's total reached the scan.
        double countedMs = -1;
        // From the start until the side count of extraCount returned.
        double extraCountedMs = -1;
        bool barFull = false;
        int infected = 0;
        QString error;
    };
    Scan scan(const QString &folder, const QString &extraCount = {}) const;
    double multiscan(const QString &folder, int *found) const;

    const QString _enginePath;
    const QString _root;
    BenchTable &_table;
};
