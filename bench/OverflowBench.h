#pragma once

#include <QString>

class BenchTable;

// A large watched folder whose agent stalls while many files are written into
// it, so that the kernel's event queue overflows: what reaches the daemon
// afterwards, and how soon the infected among the new files are listed,
// beside the daemon's own multiscan of the new files alone.
class OverflowBench
{
public:
    OverflowBench(const QString &enginePath, const QString &scratch, BenchTable &table);

    void run();

private:
    // Wall time in ms of reading the metadata of everything under root, as a walk
    // after an overflow does; negative when root cannot be read.
    static double metadataWalkMs(const QString &root, qint64 *entries);

    const QString _enginePath;
    const QString _scratch;
    BenchTable &_table;
};
