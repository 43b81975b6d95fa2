#pragma once

#include "QXExclusionPredicate.h"

#include <QList>
#include <QString>
#include <QStringList>

// What the file counter asks of its owner, from the counter's thread, and
// where it sends its total, on the main thread.
class QXFileCounterDelegate
{
public:
    virtual ~QXFileCounterDelegate() = default;

    virtual void fileCounterReturned(qint64 count) = 0;
    virtual QStringList obtainFilesForSavedSearchAtPath(const QString &path, bool *whole = nullptr) = 0;
    virtual bool quarantineFiles() const = 0;
    virtual QList<QXExclusionPredicate> counterExcludes() const = 0;
    virtual QStringList exclusionStringsForRootVolScan() const = 0;
    virtual QStringList pathsToScan() const = 0;
    virtual QString quarantineLocation() const = 0;
};
