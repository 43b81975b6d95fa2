#pragma once

#include "Tarnlib/Tarnlib/QXUtilsDelegate.h"

#include <QPair>
#include <QStringList>

#include <functional>

// Records what the coordinator relays, in order, as "operation" or
// "operation:argument" entries.
class RecordingUtilsDelegate : public QXUtilsDelegate
{
public:
    QStringList calls;
    QList<QPair<QString, QString>> infections;
    bool implementsOptional = true;
    std::function<void()> onUpdateFinished;
    std::function<void()> onInfection;

    int count(const QString &call) const { return int(calls.count(call)); }
    bool respondsTo(Optional) const override { return implementsOptional; }
    bool useClamd() override { return true; }
    bool wantScanStatusUpdates() override { return false; }
    bool wantUpdatePercentages() override { return true; }
    void scanStarted() override { calls << "scanStarted"; }
    void scanFinishedWithStatus(int status) override
    {
        calls << QStringLiteral("scanFinishedWithStatus:%1").arg(status);
    }
    void scanCrashed(const QString &reason) override { calls << "scanCrashed:" + reason; }
    void infectionFound(const QString &name, const QString &file) override
    {
        calls << "infectionFound";
        infections.append({name, file});
        if (onInfection)
            onInfection();
    }
    void updateProgressBarWithCountOfFilesScannedSoFar(quint32 count) override
    {
        calls << QStringLiteral("progress:%1").arg(count);
    }
    void engineNotFound() override { calls << "engineNotFound"; }
    void engineFoundWithVersionString(const QString &version) override { calls << "engineFound:" + version; }
    void updateStarted() override { calls << "updateStarted"; }
    void updateFinishedWithStatus(int status) override
    {
        calls << QStringLiteral("updateFinishedWithStatus:%1").arg(status);
        if (onUpdateFinished)
            onUpdateFinished();
    }
    void updateProgressWithMessage(const QString &message) override { calls << "message:" + message; }
    void updateProgressWithPercentDone(double percent) override { calls << QStringLiteral("percent:%1").arg(percent); }
    void fileCounterReturned(qint64 count) override { calls << QStringLiteral("fileCounterReturned:%1").arg(count); }
    void appendToConsole(const QString &text) override { calls << "appendToConsole:" + text; }
    void savedSearchCutAtPath(const QString &path, qint64 entries) override
    {
        calls << QStringLiteral("savedSearchCutAtPath:%1:%2").arg(path).arg(entries);
    }
    void needToUpdateDB() override { calls << "needToUpdateDB"; }
    void needToUpdateEngineDisplayVersionString(const QString &version) override
    {
        calls << "needToUpdateEngine:" + version;
    }
    void clamdStarted() override { calls << "clamdStarted"; }
    void clamdFailedToStart() override { calls << "clamdFailedToStart"; }
    void clamdAlreadyRunning() override { calls << "clamdAlreadyRunning"; }
};
