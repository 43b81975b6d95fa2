#pragma once

#include "QXExclusionPredicate.h"

#include <QList>
#include <QString>
#include <QStringList>

// What the guard leaves alone, decided once: the user's exclusions, tested
// below the watched folder a path lies in, and whole folders (the Trash, the
// quarantine folder, the mail stores when mail is not scanned). The watcher
// takes no watch below an excluded folder and the batch filter leaves the
// same paths out, so the two never disagree.
class QXExclusionPolicy
{
public:
    QXExclusionPolicy() = default;
    QXExclusionPolicy(const QStringList &watchedRoots, const QList<QXExclusionPredicate> &userExcludes,
                      const QStringList &excludedFolders);

    // Excluded itself, or lying in a folder below its watched folder that is.
    bool excludes(const QString &path) const;
    // A folder is also excluded by a pattern that names it with its trailing "/".
    bool excludesFolder(const QString &folder) const;
    // The batch entry less what is excluded, counting what was left out. The
    // daemon scans a folder whole, so one holding something excluded is
    // replaced by what it holds less that.
    QStringList withoutExcludedParts(const QString &path, int &leftOut) const;

    // A copy whose regular expressions are its own, for another thread:
    // copies of an expression share their compiled state.
    QXExclusionPolicy detached() const;

    static bool isPathInsideFolder(const QString &path, const QString &folder);

private:
    // The watched folder a path lies in, the innermost; empty for none.
    QString watchedRootOf(const QString &path) const;
    bool excludesEntry(const QString &path, const QString &root) const;
    QStringList keptParts(const QString &path, const QString &root, int &leftOut) const;

    QStringList _watchedRoots;
    QList<QXExclusionPredicate> _userExcludes;
    QStringList _excludedFolders;
};
