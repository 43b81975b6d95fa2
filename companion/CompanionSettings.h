#pragma once

#include "ScheduledScan.h"

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

#include <memory>

class QXUtils;

// The companion's settings, edited through QXUtils running as the companion
// so that they land in the companion's own domain, which the agent reads.
// Changes are buffered until save().
class CompanionSettings
{
public:
    CompanionSettings();
    ~CompanionSettings();

    // The file the agent reads the settings from.
    static QString domainPath();
    static bool domainExists();

    QVariant value(const QString &key) const;
    void setValue(const QString &key, const QVariant &value);
    void removeValue(const QString &key);

    // Watched folders as written ("~/..." for folders in the home folder).
    QStringList watchedFolders() const;
    void setWatchedFolders(const QStringList &folders);
    // Each answers false with a clear message and changes nothing when the
    // folder does not exist, is already there or is not there.
    bool addWatchedFolder(const QString &folder, QString *error = nullptr);
    bool removeWatchedFolder(const QString &folder, QString *error = nullptr);

    QVariantList exclusionRecords() const;
    // Refused as a whole, with the first problem, when a record is unusable.
    bool setExclusionRecords(const QVariantList &records, QString *error = nullptr);
    // Empty when the record can be used; otherwise what is wrong with it.
    static QString exclusionRecordProblem(const QVariantMap &record);

    // The folders Korvane scans on a schedule, and when.
    ScheduledScan::Schedule scheduledScan() const;
    // Refused, changing nothing, with what is wrong when the schedule cannot be
    // kept (an hour past 23, no folder, a relative folder...).
    bool setScheduledScan(const ScheduledScan::Schedule &schedule, QString *error = nullptr);

    // Empty when the settings as they would be saved leave no watched file
    // unscanned without a sign; otherwise the first such problem.
    QString guardProblem() const;

    // Writes what changed; answers false (changes kept) when the settings
    // would leave files unscanned or the file could not be written. After a
    // save the agent is asked to restart.
    bool save(QString *error = nullptr);
    void revert();

    // Writes the first run's defaults when there are no settings yet: the
    // Downloads folder as the one watched folder. Answers whether it wrote.
    bool writeFirstRunDefaults(QString *error = nullptr);

    // "/home/u/x" -> "~/x"; how folders are kept, so that the settings
    // survive a renamed home.
    static QString abbreviated(const QString &folder);
    static QString expanded(const QString &folder);

private:
    // Empty when no enabled exclusion leaves a whole watched folder out.
    static QString exclusionProblem(const QVariantList &records, const QStringList &watched);
    // Empty when the folder may be the quarantine folder: an existing
    // absolute folder apart from the watched ones.
    static QString quarantineFolderProblem(const QString &folder, const QStringList &watched);
    // Empty when the agent may hand these arguments to clamdscan.
    static QString scannerArgumentsProblem(const QString &arguments);

    std::unique_ptr<QXUtils> _utils;
};
