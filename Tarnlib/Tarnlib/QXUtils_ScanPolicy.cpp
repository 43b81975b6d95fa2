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
    if (quarantineOverlapsWatchedFolder(_quarantineLocation, watchedRoots()))
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

bool QXUtils::quarantineOverlapsWatchedFolder(const QString &location, const QStringList &roots)
{
    if (location.isEmpty())
        return false;
    const QString quarantine = QDir::cleanPath(location);
    return std::any_of(roots.begin(), roots.end(), [&](const QString &root) {
        return QXExclusionPolicy::isPathInsideFolder(root, quarantine)
               || QXExclusionPolicy::isPathInsideFolder(quarantine, root);
    });
}

QList<QXExclusionPredicate> QXUtils::userExclusions(QStringList *arguments) const
{
    QList<QXExclusionPredicate> predicates;
    const QVariantList records = readPreferenceForKey(QStringLiteral("ExcludePatterns")).toList();
    for (const QVariant &entry : records) {
        const QVariantMap record = entry.toMap();
        const QString pattern = record.value(QStringLiteral("excludePattern")).toString();
        if (!record.value(QStringLiteral("excludeEnabled")).toBool() || pattern.isEmpty())
            continue;
        const bool regularExpression = record.value(QStringLiteral("excludeRegEx")).toBool();
        const QString argument = regularExpression ? pattern : escapedLiteralPattern(pattern);
        if (arguments)
            *arguments << QStringLiteral("--exclude=%1").arg(argument) << QStringLiteral("--exclude-dir=%1").arg(argument);
        predicates << (regularExpression ? QXExclusionPredicate::matching(pattern)
                                         : QXExclusionPredicate::containing(pattern));
    }
    return predicates;
}

void QXUtils::determineWhatToExcludeFromThisScan()
{
    QStringList arguments;
    QList<QXExclusionPredicate> predicates = userExclusions(&arguments);
    _watchedRootsOfScan = watchedRoots();
    _exclusionConflicts.clear();
    for (const QXExclusionPredicate &predicate : std::as_const(predicates)) {
        for (const QString &root : std::as_const(_watchedRootsOfScan)) {
            if (predicate.evaluate(root) || predicate.evaluate(root + QLatin1Char('/')))
                _exclusionConflicts << QStringLiteral("the exclusion “%1” matches the watched folder %2: it is "
                                                      "applied only to what lies below it")
                                           .arg(predicate.argument(), root);
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
                            [&](const QString &folder) { return QXExclusionPolicy::isPathInsideFolder(path, folder); });
    });
}

QStringList QXUtils::leaveExcludedPathsOutOfBatch(const QStringList &batch, const QStringList &quarantinedByUs) const
{
    QStringList folders = Trash::sharedTrash()->trashFolders() + _excludedMailStores;
    // "/" is an unusable quarantine folder and must not leave everything out;
    // nor may one around or inside a watched folder leave that folder out.
    const QString quarantine = QDir::cleanPath(_quarantineLocation);
    if (quarantineOverlapsWatchedFolder(_quarantineLocation, _watchedRootsOfScan))
        folders << quarantinedByUs;
    else if (!_quarantineLocation.isEmpty() && quarantine != QLatin1String("/"))
        folders << quarantine;

    const QXExclusionPolicy policy(_watchedRootsOfScan, _userExcludes, folders);
    QStringList kept;
    int leftOut = 0;
    for (const QString &path : batch)
        kept << policy.withoutExcludedParts(path, leftOut);
    if (leftOut > 0)
        SystemLog::log(QStringLiteral("left out of this scan: %1").arg(leftOut));
    return kept;
}

QXExclusionPolicy QXUtils::exclusionPolicy() const
{
    const QStringList roots = watchedRoots();
    QStringList folders = Trash::sharedTrash()->trashFolders();
    if (!readPreferenceForKey(QStringLiteral("ScanEmail")).toBool())
        folders << _emailDirPaths;
    QString quarantine = quarantineFolderSetting(readPreferenceForKey(QStringLiteral("QuarantineFolder")));
    quarantine = QDir::isRelativePath(quarantine) ? QString() : QDir::cleanPath(quarantine);
    // What is moved into a quarantine folder that overlaps a watched one is
    // left out file by file, so the folder itself stays watched.
    if (!quarantine.isEmpty() && quarantine != QLatin1String("/") && !quarantineOverlapsWatchedFolder(quarantine, roots))
        folders << quarantine;
    return QXExclusionPolicy(roots, userExclusions(nullptr), folders);
}
