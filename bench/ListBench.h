#pragma once

#include <QString>

class BenchTable;

// A burst of detections reaching the infected list: 10,000 rows added the
// way the coordinator adds them (one queued call each), the longest stall of
// the main thread meanwhile, and how long until the list file holds them all.
class ListBench
{
public:
    ListBench(const QString &enginePath, const QString &scratch, BenchTable &table);

    void run();

private:
    const QString _enginePath;
    const QString _watched;
    BenchTable &_table;
};
