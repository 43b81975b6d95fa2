#pragma once

#include <QString>

class BenchTable;

// The scan again of files found clean once an update brings new
// definitions: an engine of its own whose update adds a signature for some
// of the journal's files, the rescan's time beside the daemon's own
// multiscan of the same files, a new file written meanwhile, and what the
// journal costs at its full size.
class RescanBench
{
public:
    RescanBench(const QString &scratch, BenchTable &table);

    void run();
    void measureJournalCost();

private:
    const QString _watched;
    BenchTable &_table;
};
