#pragma once

#include "Tarnlib/Tarnlib/QXScannerDelegate.h"

#include <QCoreApplication>
#include <QMap>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QThread>

#include <functional>
#include <optional>

// The scanner's owner as tests see it: settings set before a run, and every
// report recorded in order as one line ("infectionFound:<line>").
class FakeScannerDelegate : public QXScannerDelegate
{
public:
    QString engine;
    QString scanLog;
    bool clamd = true;
    bool fileList = true;
    bool updates = false;
    bool logging = true;
    bool noSummary = false;
    bool quarantine = false;
    QString quarantineFolder;
    bool mail = false;
    QStringList exclusions;
    QStringList rootExclusions;
    std::optional<QString> additional;
    QMap<QString, QStringList> savedSearches;
    // Runs inside the end report, while the scanner waits for it.
    std::function<void()> onFinished;

    QStringList events() const
    {
        QMutexLocker locker(&_lock);
        return _events;
    }
    QStringList eventsStartingWith(const QString &prefix) const
    {
        return events().filter(QRegularExpression(QStringLiteral("^") + QRegularExpression::escape(prefix)));
    }
    bool ended() const
    {
        const QStringList all = events();
        return !all.filter(QRegularExpression(QStringLiteral("^(scanFinishedWithStatus|scanCrashed):"))).isEmpty();
    }
    bool reportsOffMainThread() const
    {
        QMutexLocker locker(&_lock);
        return _reportsOffMainThread;
    }
    bool questionsOnMainThread() const
    {
        QMutexLocker locker(&_lock);
        return _questionsOnMainThread;
    }

    QStringList obtainFilesForSavedSearchAtPath(const QString &path) override { return asked(savedSearches.value(path)); }
    bool engineSupportsFileListFlag() const override { return asked(fileList); }
    bool quarantineFiles() const override { return asked(quarantine); }
    bool scanEmailFiles() const override { return asked(mail); }
    bool logScans() const override { return asked(logging); }
    bool suppressSummary() const override { return asked(noSummary); }
    // Asked once by the scanner's constructor, on the owner's thread.
    bool useClamd() const override { return clamd; }
    bool wantScanStatusUpdates() const override { return updates; }
    QStringList exclusionStrings() const override { return asked(exclusions); }
    QStringList exclusionStringsForRootVolScan() const override { return asked(rootExclusions); }
    QString enginePath() const override { return asked(engine); }
    QString pathToScanLog() const override { return asked(scanLog); }
    QStringList pathsToScan() const override { return {}; }
    QString quarantineLocation() const override { return asked(quarantineFolder); }
    QString additionalCmdArgs() const override { return asked(additional.value_or(QString())); }
    bool hasAdditionalCmdArgs() const override { return asked(additional.has_value()); }

    void scanStarted() override { record(QStringLiteral("scanStarted")); }
    void scanFinishedWithStatus(int status) override
    {
        if (onFinished)
            onFinished();
        record(QStringLiteral("scanFinishedWithStatus:%1").arg(status));
    }
    void scanCrashed(const QString &reason) override { record(QStringLiteral("scanCrashed:") + reason); }
    void infectionFound(const QString &line) override { record(QStringLiteral("infectionFound:") + line); }
    void appendToConsole(const QString &text) override { record(QStringLiteral("appendToConsole:") + text); }
    void updateProgressWithMessage(const QString &message) override
    {
        record(QStringLiteral("updateProgressWithMessage:") + message);
    }
    void updateProgressBar() override { record(QStringLiteral("updateProgressBar")); }
    void updateProgressWithPercentDone(double percent) override
    {
        record(QStringLiteral("updateProgressWithPercentDone:%1").arg(percent));
    }

private:
    static bool onMainThread() { return QThread::currentThread() == QCoreApplication::instance()->thread(); }

    template<typename T>
    T asked(const T &answer) const
    {
        if (onMainThread()) {
            QMutexLocker locker(&_lock);
            _questionsOnMainThread = true;
        }
        return answer;
    }
    void record(const QString &event)
    {
        QMutexLocker locker(&_lock);
        _reportsOffMainThread = _reportsOffMainThread || !onMainThread();
        _events.append(event);
    }

    mutable QMutex _lock;
    QStringList _events;
    bool _reportsOffMainThread = false;
    mutable bool _questionsOnMainThread = false;
};
