#include "CompanionSettings.h"

#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/BundleInfo.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"
#include "platform/UserFolders.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

namespace {

const QString folderKey = QStringLiteral("VardenFolderArray");
const QString excludeKey = QStringLiteral("ExcludePatterns");

void setError(QString *error, const QString &text)
{
    if (error)
        *error = text;
}

QString canonicalFolder(const QString &folder)
{
    return QDir::cleanPath(CompanionSettings::expanded(folder));
}

} // namespace

CompanionSettings::CompanionSettings()
    : _utils(std::make_unique<QXUtils>(nullptr, QList<QXUtils::EngineCandidate>{}))
{
    Q_ASSERT(QXUtils::runningAsCompanion());
}

CompanionSettings::~CompanionSettings() = default;

QString CompanionSettings::domainPath()
{
    return UserDefaults::pathForDomain(BundleInfo::companionIdentifier());
}

bool CompanionSettings::domainExists()
{
    return QFileInfo::exists(domainPath());
}

QVariant CompanionSettings::value(const QString &key) const
{
    return _utils->readPreferenceForKey(key);
}

void CompanionSettings::setValue(const QString &key, const QVariant &value)
{
    _utils->setPreference(value, key);
}

void CompanionSettings::removeValue(const QString &key)
{
    _utils->deletePreferenceForKey(key);
}

QString CompanionSettings::abbreviated(const QString &folder)
{
    const QString home = QDir::cleanPath(UserFolders::home());
    const QString clean = QDir::cleanPath(folder);
    if (home == QLatin1String("/"))
        return clean;
    if (clean == home)
        return QStringLiteral("~");
    if (clean.startsWith(home + QLatin1Char('/')))
        return QLatin1Char('~') + clean.mid(home.size());
    return clean;
}

QString CompanionSettings::expanded(const QString &folder)
{
    return UserFolders::expandTilde(folder);
}

QStringList CompanionSettings::watchedFolders() const
{
    QStringList folders;
    for (const QVariant &record : value(folderKey).toList()) {
        const QString path = record.toMap().value(QStringLiteral("pathName")).toString();
        if (!path.isEmpty())
            folders << path;
    }
    return folders;
}

void CompanionSettings::setWatchedFolders(const QStringList &folders)
{
    // Records the agent does not read keep their other entries.
    QMap<QString, QVariantMap> known;
    for (const QVariant &record : value(folderKey).toList())
        known.insert(record.toMap().value(QStringLiteral("pathName")).toString(), record.toMap());
    QVariantList records;
    for (const QString &folder : folders) {
        QVariantMap record = known.value(folder);
        record.insert(QStringLiteral("pathName"), folder);
        if (!record.contains(QStringLiteral("WatchSubdirs")))
            record.insert(QStringLiteral("WatchSubdirs"), true);
        records << record;
    }
    setValue(folderKey, records);
}

bool CompanionSettings::addWatchedFolder(const QString &folder, QString *error)
{
    const QString absolute = QDir::cleanPath(QFileInfo(expanded(folder)).absoluteFilePath());
    if (!QFileInfo(absolute).isDir()) {
        setError(error, QStringLiteral("%1 is not a folder").arg(absolute));
        return false;
    }
    QStringList folders = watchedFolders();
    for (const QString &existing : folders) {
        if (canonicalFolder(existing) == absolute) {
            setError(error, QStringLiteral("%1 is watched already").arg(absolute));
            return false;
        }
    }
    folders << abbreviated(absolute);
    setWatchedFolders(folders);
    return true;
}

bool CompanionSettings::removeWatchedFolder(const QString &folder, QString *error)
{
    const QString absolute = QDir::cleanPath(QFileInfo(expanded(folder)).absoluteFilePath());
    QStringList folders = watchedFolders();
    const qsizetype removed = folders.removeIf([&](const QString &f) { return canonicalFolder(f) == absolute; });
    if (removed == 0) {
        setError(error, QStringLiteral("%1 is not watched").arg(absolute));
        return false;
    }
    setWatchedFolders(folders);
    return true;
}

QVariantList CompanionSettings::exclusionRecords() const
{
    return value(excludeKey).toList();
}

QString CompanionSettings::exclusionRecordProblem(const QVariantMap &record)
{
    const QString pattern = record.value(QStringLiteral("excludePattern")).toString();
    if (pattern.isEmpty())
        return QStringLiteral("An exclusion needs a pattern.");
    if (record.value(QStringLiteral("excludeRegEx")).toBool()) {
        const QRegularExpression expression(pattern);
        if (!expression.isValid())
            return QStringLiteral("“%1” is not a valid regular expression: %2 at position %3.")
                .arg(pattern, expression.errorString())
                .arg(expression.patternErrorOffset());
    }
    return {};
}

bool CompanionSettings::setExclusionRecords(const QVariantList &records, QString *error)
{
    QVariantList cleaned;
    for (const QVariant &entry : records) {
        const QVariantMap record = entry.toMap();
        const QString problem = exclusionRecordProblem(record);
        if (!problem.isEmpty()) {
            setError(error, problem);
            return false;
        }
        cleaned << QVariantMap{
            {QStringLiteral("excludePattern"), record.value(QStringLiteral("excludePattern")).toString()},
            {QStringLiteral("excludeEnabled"), record.value(QStringLiteral("excludeEnabled")).toBool()},
            {QStringLiteral("excludeRegEx"), record.value(QStringLiteral("excludeRegEx")).toBool()},
            {QStringLiteral("excludeComments"), record.value(QStringLiteral("excludeComments")).toString()},
        };
    }
    setValue(excludeKey, cleaned);
    return true;
}

QString CompanionSettings::quarantineFolderProblem(const QString &folder)
{
    if (folder.isEmpty())
        return {};
    const QFileInfo info(expanded(folder));
    if (!info.isDir())
        return QStringLiteral("The quarantine folder %1 does not exist.").arg(info.filePath());
    if (info.canonicalFilePath() == QLatin1String("/"))
        return QStringLiteral("The whole disk cannot be the quarantine folder.");
    return {};
}

bool CompanionSettings::save(QString *error)
{
    const QVariant quarantine = value(QStringLiteral("QuarantineFolder"));
    if (quarantine.typeId() == QMetaType::QString) {
        const QString problem = quarantineFolderProblem(quarantine.toString());
        if (!problem.isEmpty()) {
            setError(error, problem);
            return false;
        }
    }
    _utils->syncPrefs();
    // syncPrefs does not tell; asking the store again does, and retries.
    if (!_utils->preferences()->defaults()->synchronize()) {
        setError(error, QStringLiteral("The settings could not be written to %1.").arg(domainPath()));
        return false;
    }
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("KorvaneVardenShouldRestart"),
                                                                         QStringLiteral("Korvane"));
    return true;
}

void CompanionSettings::revert()
{
    _utils->revertPrefs();
}

bool CompanionSettings::writeFirstRunDefaults(QString *error)
{
    if (domainExists())
        return false;
    const QString downloads = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    if (downloads.isEmpty() || !QDir().mkpath(downloads)) {
        setError(error, QStringLiteral("could not make the Downloads folder %1").arg(downloads));
        return false;
    }
    setWatchedFolders({abbreviated(downloads)});
    _utils->syncPrefs();
    if (!_utils->preferences()->defaults()->synchronize()) {
        setError(error, QStringLiteral("The settings could not be written to %1.").arg(domainPath()));
        return false;
    }
    return true;
}
