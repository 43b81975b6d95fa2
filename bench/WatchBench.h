#pragma once

#include <QHash>
#include <QList>
#include <QString>

class BenchTable;

// Watching large trees: our watcher beside inotifywait -r on the same trees
// in the same run, each in a process of its own, and the whole agent's CPU
// while it watches 100,000 folders and nothing happens.
class WatchBench
{
public:
    WatchBench(const QString &program, const QString &enginePath, const QString &scratch, BenchTable &table);

    // scale: the tree of 1,000,000 files in 100,000 folders.
    void run(bool compareSetup, bool measureIdle, bool scale);
    // A tree whose excluded folder holds 50,000 sub-folders, watched with and
    // without the exclusion: watches and set-up time.
    void runExcluded();

private:
    struct Tree
    {
        QString name;
        QList<int> fanouts; // wide when set
        int chains = 0;     // deep otherwise
        int depth = 0;
        int filesPerLeaf = 0;
    };
    // One watch of one tree by one program; negative figures were not measured.
    struct Probe
    {
        double setupMs = -1;
        qint64 hwmKb = -1;
        qint64 rssKb = -1;
        qint64 baselineKb = -1;
        qint64 watched = -1;
        double maxGapMs = -1;
        double noiseGapMs = -1;
    };

    qint64 build(const Tree &tree, const QString &path) const;
    void compare(const Tree &tree, const QString &path, qint64 folders);
    Probe probeOurs(const QString &path, const QString &excludedText = {}) const;
    Probe probeInotifywait(const QString &path) const;
    void idle(const Tree &tree, const QString &path, qint64 folders);
    // Runs this program in a mode of its own and reads its key=value lines.
    QHash<QString, QString> runProbe(const QStringList &arguments, int timeoutMs) const;

    // inotifywait's resident memory on an empty folder, measured once.
    qint64 inotifywaitBaselineKb();

    qint64 _inotifywaitBaselineKb = -1;
    const QString _program;
    const QString _enginePath;
    const QString _scratch;
    BenchTable &_table;
};
