// What a scan leaves out: exclusions, quarantine, mail stores and the Trash.
#include "QXUtils.h"

#include "platform/Localization.h"
#include "platform/SystemLog.h"
#include "platform/Trash.h"
#include "platform/UserFolders.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace {

QString quarantineFolderSetting(const QVariant &setting)
{
    QVariant folder = setting;
    if (folder.typeId() == QMetaType::QVariantMap)
        folder = folder.toMap().value(QStringLiteral("path"));
    // Anything but a string names no folder.
    return folder.typeId() == QMetaType::QString ? UserFolders::expandTilde(folder.toString()) : QString();
}

} // namespace

QString QXUtils::quarantineLocationForActions() const
{
    if (_quarantineDetermined)
        return _quarantineLocation;
    const QString folder = quarantineFolderSetting(readPreferenceForKey(QStringLiteral("QuarantineFolder")));
    return QDir::isRelativePath(folder) ? QString() : folder;
}

void QXUtils::determineQuarantineSettings()
{
    _quarantineDetermined = true;
    _quarantineFiles = readPreferenceForKey(QStringLiteral("QuarantineInfected")).toBool();
    _quarantineLocation = quarantineFolderSetting(readPreferenceForKey(QStringLiteral("QuarantineFolder")));
    _quarantineConflicts.clear();
    // A relative folder would lie wherever the agent happens to run.
    if (!_quarantineLocation.isEmpty() && QDir::isRelativePath(_quarantineLocation)) {
        _quarantineConflicts << QStringLiteral("the quarantine folder “%1” is not a full path: it is taken as not set")
                                    .arg(_quarantineLocation);
        _quarantineLocation = QString();
    }
    if (quarantineOverlapsWatchedFolder(watchedRoots()))
        _quarantineConflicts << QStringLiteral("the quarantine folder %1 overlaps a watched folder: only the files "
                                               "quarantined from the list are left out of scans")
                                    .arg(_quarantineLocation);

    if (!_quarantineFiles)
        return;
    if (!_quarantineLocation.isEmpty() && _quarantineLocation != QLatin1String("/")
        && QFileInfo::exists(_quarantineLocation))
        return;
    _quarantineFiles = false;
    appendToConsole(Localization::text("QUARANTINE_PROBLEM"));
}

QString QXUtils::escapedLiteralPattern(const QString &pattern)
{
    QString escaped = pattern;
    escaped.remove(QLatin1Char('~'));
    // The backslash first, so that the ones added below stay single.
    escaped.replace(QLatin1String("\\"), QLatin1String("\\\\"));
    for (const char *special : {"[", "^", "$", ".", "|", "?", "*", "+", "(", ")"})
        escaped.replace(QLatin1String(special), QStringLiteral("\\") + QLatin1String(special));
    return escaped;
}

QStringList QXUtils::watchedRoots() const
{
    QStringList roots;
    for (const QVariant &record : readPreferenceForKey(QStringLiteral("VardenFolderArray")).toList()) {
        const QVariant pathName = record.toMap().value(QStringLiteral("pathName"));
        if (pathName.typeId() == QMetaType::QString && !pathName.toString().isEmpty())
            roots << QDir::cleanPath(UserFolders::expandTilde(pathName.toString()));
    }
    return roots;
}

bool QXUtils::quarantineOverlapsWatchedFolder(const QStringList &roots) const
{
    if (_quarantineLocation.isEmpty())
        return false;
    const QString quarantine = QDir::cleanPath(_quarantineLocation);
    return std::any_of(roots.begin(), roots.end(), [&](const QString &root) {
        return isPathInsideFolder(root, quarantine) || isPathInsideFolder(quarantine, root);
    });
}

void QXUtils::determineWhatToExcludeFromThisScan()
{
    QStringList arguments;
    QList<QXExclusionPredicate> predicates;
    _watchedRootsOfScan = watchedRoots();
    _exclusionConflicts.clear();
    const QVariantList records = readPreferenceForKey(QStringLiteral("ExcludePatterns")).toList();
    for (const QVariant &entry : records) {
        const QVariantMap record = entry.toMap();
        const QString pattern = record.value(QStringLiteral("excludePattern")).toString();
        if (!record.value(QStringLiteral("excludeEnabled")).toBool() || pattern.isEmpty())
            continue;
        if (record.value(QStringLiteral("excludeRegEx")).toBool()) {
            arguments << QStringLiteral("--exclude=%1").arg(pattern) << QStringLiteral("--exclude-dir=%1").arg(pattern);
            predicates << QXExclusionPredicate::matching(pattern);
        } else {
            const QString escaped = escapedLiteralPattern(pattern);
            arguments << QStringLiteral("--exclude=%1").arg(escaped) << QStringLiteral("--exclude-dir=%1").arg(escaped);
            predicates << QXExclusionPredicate::containing(pattern);
        }
        for (const QString &root : std::as_const(_watchedRootsOfScan)) {
            if (predicates.last().evaluate(root) || predicates.last().evaluate(root + QLatin1Char('/')))
                _exclusionConflicts << QStringLiteral("the exclusion “%1” matches the watched folder %2: it is "
                                                      "applied only to what lies below it")
                                           .arg(pattern, root);
        }
    }
    _userExcludes = predicates;

    _scanEmailFiles = readPreferenceForKey(QStringLiteral("ScanEmail")).toBool();
    _excludedMailStores.clear();
    if (!_scanEmailFiles) {
        for (const QString &store : _emailDirPaths) {
            arguments << QStringLiteral("--exclude-dir=%1").arg(store);
            predicates << QXExclusionPredicate::containing(store);
            _excludedMailStores << store;
        }
    }

    _exclusionStrings = arguments;
    _counterExcludes = predicates;
}

bool QXUtils::checkIfPathLooksLikeEmail(const QString &path) const
{
    for (const QString &store : _emailDirPaths) {
        if (path.startsWith(store))
            return true;
    }
    return false;
}

bool QXUtils::isPathInsideFolder(const QString &path, const QString &folder)
{
    if (folder.isEmpty())
        return false;
    // A separator must follow, or ".Trash-1" would hold user 1000's Trash.
    const QString inside = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    return path == folder || path.startsWith(inside);
}

bool QXUtils::isFileInTrash(const QString &path) const
{
    return !anyOutsideTrash({path});
}

// The Trash folders are read from the mount table once for all the paths.
bool QXUtils::anyOutsideTrash(const QStringList &paths) const
{
    const QStringList folders = Trash::sharedTrash()->trashFolders();
    return std::any_of(paths.begin(), paths.end(), [&](const QString &path) {
        return std::none_of(folders.begin(), folders.end(),
                            [&](const QString &folder) { return isPathInsideFolder(path, folder); });
    });
}

QStringList QXUtils::leaveExcludedPathsOutOfBatch(const QStringList &batch, const QStringList &quarantinedByUs) const
{
    QStringList folders = Trash::sharedTrash()->trashFolders() + _excludedMailStores;
    // "/" is an unusable quarantine folder and must not leave everything out;
    // nor may one around or inside a watched folder leave that folder out.
    const QString quarantine = QDir::cleanPath(_quarantineLocation);
    if (quarantineOverlapsWatchedFolder(_watchedRootsOfScan))
        folders << quarantinedByUs;
    else if (!_quarantineLocation.isEmpty() && quarantine != QLatin1String("/"))
        folders << quarantine;

    QStringList kept;
    int leftOut = 0;
    for (const QString &path : batch)
        kept << withoutExcludedParts(path, watchedRootOf(path), folders, leftOut);
    if (leftOut > 0)
        SystemLog::log(QStringLiteral("left out of this scan: %1").arg(leftOut));
    return kept;
}

QString QXUtils::watchedRootOf(const QString &path) const
{
    QString nearest;
    for (const QString &root : _watchedRootsOfScan) {
        if (isPathInsideFolder(path, root) && root.size() > nearest.size())
            nearest = root;
    }
    return nearest;
}

bool QXUtils::isExcludedPath(const QString &path, const QString &root, const QStringList &folders) const
{
    // The user's exclusions look only below the watched folder, so that a
    // word that happens to be in the home folder's name cannot leave it all out.
    const QString below = root.isEmpty() || root == QLatin1String("/") ? path : path.mid(root.size());
    return std::any_of(folders.begin(), folders.end(),
                       [&](const QString &folder) { return isPathInsideFolder(path, folder); })
           || (!below.isEmpty()
               && std::any_of(_userExcludes.begin(), _userExcludes.end(),
                              [&](const QXExclusionPredicate &predicate) { return predicate.evaluate(below); }));
}

QStringList QXUtils::withoutExcludedParts(const QString &path, const QString &root, const QStringList &folders,
                                          int &leftOut) const
{
    const QFileInfo info(path);
    const bool isFolder = info.isDir() && !info.isSymLink();
    const QString asFolder = path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
    // A pattern that names a folder with its trailing "/" covers the folder too.
    if (isExcludedPath(path, root, folders) || (isFolder && path != root && isExcludedPath(asFolder, root, folders))) {
        ++leftOut;
        return {};
    }
    if (!isFolder)
        return {path};

    // The daemon scans a folder whole, so one holding something excluded is
    // replaced by what it holds less that. Only the branches that lead to an
    // excluded entry are opened; the rest stay single paths.
    const bool mayHoldExcluded = !_userExcludes.isEmpty()
                                 || std::any_of(folders.begin(), folders.end(),
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
        const QStringList part = withoutExcludedParts(child, root, folders, leftOut);
        changed = changed || part != QStringList{child};
        inside << part;
    }
    return changed ? inside : QStringList{path};
}
