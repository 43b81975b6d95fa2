#pragma once

#include "Tarnlib/Tarnlib/QXScannerDelegate.h"

#include <QCoreApplication>
#include <QMap>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QThread>

#include <atomic>
#include <functional>
#include <optional>

// The scanner's owner as tests see it: settings set before a run, and every
// report recorded in order as one line ("infectionFound:<line>").
class FakeScannerDelegate : public QXScannerDelegate
{
public:
    QString engine, scanLog, quarantineFolder;
    bool fileList = true, updates = false, logging = true, quarantine = false, mail = false;
    QStringList exclusions;
    std::optional<QString> additional;
    QMap<QString, QStringList> savedSearches;
    QStringList cutSearches;
    // Runs inside the end report, while the scanner waits for it.
    std::function<void()> onFinished;
    std::atomic_bool reportsOffMainThread = false;
    mutable std::atomic_bool questionsOnMainThread = false;

    QStringList events() const
    {
        QMutexLocker locker(&_lock);
        return _events;
    }
    QStringList eventsStartingWith(const QString &prefix) const
    {
        return events().filter(QRegularExpression("^" + QRegularExpression::escape(prefix)));
    }
    void clear()
    {
        QMutexLocker locker(&_lock);
        _events.clear();
    }
    bool ended() const
    {
        return !events().filter(QRegularExpression("^(scanFinishedWithStatus|scanCrashed):")).isEmpty();
    }

    QStringList obtainFilesForSavedSearchAtPath(const QString &path, bool *whole) override
    {
        if (whole)
            *whole = !cutSearches.contains(path);
        return asked(savedSearches.value(path));
    }
    bool engineSupportsFileListFlag() const override { return asked(fileList); }
    bool quarantineFiles() const override { return asked(quarantine); }
    bool scanEmailFiles() const override { return asked(mail); }
    bool logScans() const override { return asked(logging); }
    bool suppressSummary() const override { return asked(false); }
    // Asked once by the scanner's constructor, on the owner's thread.
    bool useClamd() const override { return true; }
    bool wantScanStatusUpdates() const override { return updates; }
    QStringList exclusionStrings() const override { return asked(exclusions); }
    QStringList exclusionStringsForRootVolScan() const override { return asked(QStringList()); }
    QString enginePath() const override { return asked(engine); }
    QString pathToScanLog() const override { return asked(scanLog); }
    QStringList pathsToScan() const override { return {}; }
    QString quarantineLocation() const override { return asked(quarantineFolder); }
    QString additionalCmdArgs() const override { return asked(additional.value_or(QString())); }
    bool hasAdditionalCmdArgs() const override { return asked(additional.has_value()); }

    void scanStarted() override { record("scanStarted"); }
    void scanFinishedWithStatus(int status) override
    {
        if (onFinished)
            onFinished();
        record(QStringLiteral("scanFinishedWithStatus:%1").arg(status));
    }
    void scanCrashed(const QString &reason) override { record("scanCrashed:" + reason); }
    void filesLeftUnscanned(const QStringList &paths) override { record("filesLeftUnscanned:" + paths.join('|')); }
    void infectionFound(const QString &line) override { record("infectionFound:" + line); }
    void appendToConsole(const QString &text) override { record("appendToConsole:" + text); }
    void updateProgressWithMessage(const QString &message) override { record("updateProgressWithMessage:" + message); }
    void updateProgressBar() override { record("updateProgressBar"); }
    void updateProgressWithPercentDone(double percent) override
    {
        record(QStringLiteral("updateProgressWithPercentDone:%1").arg(percent));
    }

private:
    static bool onMainThread() { return QThread::currentThread() == QCoreApplication::instance()->thread(); }

    template <typename T> T asked(const T &answer) const
    {
        questionsOnMainThread = questionsOnMainThread || onMainThread();
        return answer;
    }
    void record(const QString &event)
    {
        reportsOffMainThread = reportsOffMainThread || !onMainThread();
        QMutexLocker locker(&_lock);
        _events.append(event);
    }

    mutable QMutex _lock;
    QStringList _events;
};
