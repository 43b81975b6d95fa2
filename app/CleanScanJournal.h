#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>

#include <optional>

// The files a scan reported clean, with what identified them then, so that
// they can be scanned again once the definitions know more. Kept as a
// line-based file that grows by appends and is rewritten whole when it holds
// too many stale lines; a crash loses at most the lines not yet flushed.
class CleanScanJournal : public QObject
{
    Q_OBJECT
public:
    struct Entry
    {
        QString path;
        quint64 device = 0;
        quint64 inode = 0;
        quint64 size = 0;
        qint64 mtimeNs = 0;
        qint64 ctimeNs = 0;
        // Milliseconds since the epoch.
        qint64 scannedAt = 0;

        bool sameFileAs(const Entry &other) const
        {
            return device == other.device && inode == other.inode && size == other.size && mtimeNs == other.mtimeNs
                   && ctimeNs == other.ctimeNs;
        }
    };

    static constexpr int defaultMaxEntries = 100000;
    static constexpr int defaultMaxAgeDays = 14;
    // How long recorded entries may wait in memory before they are written.
    static constexpr int flushDelayMs = 2000;

    // The journal lives in folder, which is made (mode 700) when missing.
    explicit CleanScanJournal(const QString &folder, QObject *parent = nullptr);
    ~CleanScanJournal() override;

    // $XDG_STATE_HOME/korvane
    static QString defaultFolder();
    QString filePath() const;

    // Reads the file up to its first damaged line; what follows is dropped
    // and the file rewritten. False, with problem() saying why, when the
    // journal cannot be used at all (then nothing is recorded).
    bool load();
    QString problem() const { return _problem; }

    void setMaxEntries(int count) { _maxEntries = count; }
    void setMaxAgeDays(int days) { _maxAgeDays = days; }
    int maxAgeDays() const { return _maxAgeDays; }

    // A regular file's identity now; nothing for anything else.
    static std::optional<Entry> entryForFile(const QString &path);
    // Whether the file at entry.path is still the one recorded.
    static bool unchanged(const Entry &entry);

    void record(const QList<Entry> &entries);
    // Writes what waits in memory.
    void flush();
    // The live entries, oldest scan first, the too old left out.
    QList<Entry> entries() const;
    qsizetype count() const { return _entries.size(); }

    static QByteArray lineOf(const Entry &entry);
    // Nothing for a line that is cut off or damaged.
    static std::optional<Entry> entryOfLine(const QByteArray &line);

private:
    void dropStale();
    bool compact();

    QString _folder;
    QString _problem;
    bool _usable = false;
    int _maxEntries = defaultMaxEntries;
    int _maxAgeDays = defaultMaxAgeDays;
    QHash<QString, Entry> _entries;
    QByteArray _unwritten;
    qsizetype _linesInFile = 0;
    QTimer _flushTimer;
};
