#pragma once

#include "Tarnlib/Tarnlib/QXUtilsDelegate.h"

// An owner for a coordinator that is only asked about settings and never scans.
class QuietUtilsDelegate : public QXUtilsDelegate
{
public:
    bool useClamd() override { return true; }
    bool wantScanStatusUpdates() override { return false; }
    bool wantUpdatePercentages() override { return false; }
    void scanStarted() override {}
    void scanFinishedWithStatus(int) override {}
    void scanCrashed(const QString &) override {}
    void infectionFound(const QString &, const QString &) override {}
    void updateProgressBarWithCountOfFilesScannedSoFar(quint32) override {}
    void engineNotFound() override {}
    void engineFoundWithVersionString(const QString &) override {}
    void updateStarted() override {}
    void updateFinishedWithStatus(int) override {}
    void updateProgressWithMessage(const QString &) override {}
    void updateProgressWithPercentDone(double) override {}
    void fileCounterReturned(qint64) override {}
};
