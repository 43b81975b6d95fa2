#include "QXExclusionPolicy.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

QXExclusionPolicy::QXExclusionPolicy(const QStringList &watchedRoots, const QList<QXExclusionPredicate> &userExcludes,
                                     const QStringList &excludedFolders)
    : _watchedRoots(watchedRoots)
    , _userExcludes(userExcludes)
    , _excludedFolders(excludedFolders)
{
}

bool QXExclusionPolicy::isPathInsideFolder(const QString &path, const QString &folder)
{
    if (folder.isEmpty())
        return false;
    // A separator must follow, or ".Trash-1" would hold user 1000's Trash.
    const QString inside = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    return path == folder || path.startsWith(inside);
}

QString QXExclusionPolicy::watchedRootOf(const QString &path) const
{
    QString nearest;
    for (const QString &root : _watchedRoots) {
        if (isPathInsideFolder(path, root) && root.size() > nearest.size())
            nearest = root;
    }
    return nearest;
}

bool QXExclusionPolicy::excludesEntry(const QString &path, const QString &root) const
{
    // The user's exclusions look only below the watched folder, so that a
    // word that happens to be in the home folder's name cannot leave it all out.
    const QString below = root.isEmpty() || root == QLatin1String("/") ? path : path.mid(root.size());
    return std::any_of(_excludedFolders.begin(), _excludedFolders.end(),
                       [&](const QString &folder) { return isPathInsideFolder(path, folder); })
           || (!below.isEmpty()
               && std::any_of(_userExcludes.begin(), _userExcludes.end(),
                              [&](const QXExclusionPredicate &predicate) { return predicate.evaluate(below); }));
}

bool QXExclusionPolicy::excludesFolder(const QString &folder) const
{
    const QString root = watchedRootOf(folder);
    if (excludesEntry(folder, root))
        return true;
    return folder != root && !folder.endsWith(QLatin1Char('/')) && excludesEntry(folder + QLatin1Char('/'), root);
}

bool QXExclusionPolicy::excludes(const QString &path) const
{
    const QString root = watchedRootOf(path);
    if (excludesEntry(path, root))
        return true;
    if (_userExcludes.isEmpty())
        return false;
    // A file reported from inside an excluded folder is left out as the folder is.
    for (qsizetype slash = path.indexOf(QLatin1Char('/'), root.size() + 1); slash > 0;
         slash = path.indexOf(QLatin1Char('/'), slash + 1)) {
        if (excludesEntry(path.left(slash), root) || excludesEntry(path.left(slash + 1), root))
            return true;
    }
    return false;
}

QStringList QXExclusionPolicy::withoutExcludedParts(const QString &path, int &leftOut) const
{
    if (excludes(path)) {
        ++leftOut;
        return {};
    }
    return keptParts(path, watchedRootOf(path), leftOut);
}

QStringList QXExclusionPolicy::keptParts(const QString &path, const QString &root, int &leftOut) const
{
    const QFileInfo info(path);
    const bool isFolder = info.isDir() && !info.isSymLink();
    const QString asFolder = path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
    if (excludesEntry(path, root) || (isFolder && path != root && excludesEntry(asFolder, root))) {
        ++leftOut;
        return {};
    }
    if (!isFolder)
        return {path};

    // Only the branches that lead to an excluded entry are opened; the rest stay single paths.
    const bool mayHoldExcluded = !_userExcludes.isEmpty()
                                 || std::any_of(_excludedFolders.begin(), _excludedFolders.end(),
                                                [&](const QString &folder) { return folder.startsWith(asFolder); });
    if (!mayHoldExcluded)
        return {path};
    // Links and special files are left out as the daemon leaves them out of a folder.
    const QStringList names = QDir(path).entryList(
        QDir::Dirs | QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Name);
    QStringList inside;
    bool changed = false;
    for (const QString &name : names) {
        const QString child = asFolder + name;
        const QStringList part = keptParts(child, root, leftOut);
        changed = changed || part != QStringList{child};
        inside << part;
    }
    return changed ? inside : QStringList{path};
}

QXExclusionPolicy QXExclusionPolicy::detached() const
{
    QList<QXExclusionPredicate> own;
    for (const QXExclusionPredicate &predicate : _userExcludes)
        own << QXExclusionPredicate(predicate.kind(), predicate.argument());
    return QXExclusionPolicy(_watchedRoots, own, _excludedFolders);
}
