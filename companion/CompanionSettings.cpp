#include "CompanionSettings.h"

#include "Tarnlib/Tarnlib/QXExclusionPredicate.h"
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

#include <algorithm>

namespace {

const QString folderKey = QStringLiteral("VardenFolderArray");
const QString excludeKey = QStringLiteral("ExcludePatterns");
const QString scheduleEnabledKey = QStringLiteral("ScheduledScanEnabled");
const QString scheduleFoldersKey = QStringLiteral("ScheduledScanFolders");
const QString scheduleWeekdayKey = QStringLiteral("ScheduledScanWeekday");
const QString scheduleHourKey = QStringLiteral("ScheduledScanHour");

void setError(QString *error, const QString &text)
{
    if (error)
        *error = text;
}

QString canonicalFolder(const QString &folder)
{
    return QDir::cleanPath(CompanionSettings::expanded(folder));
}

QString absoluteFolder(const QString &folder)
{
    return QDir::cleanPath(QFileInfo(CompanionSettings::expanded(folder)).absoluteFilePath());
}

// Both cleaned and absolute.
bool isInside(const QString &path, const QString &folder)
{
    return folder == QLatin1String("/") ? path != folder : path.startsWith(folder + QLatin1Char('/'));
}

// clamdscan's options (Debian 12, ClamAV 1.4). Those with a refusal would
// leave files unscanned or unlisted; every other word is refused as unknown.
struct ScannerOption
{
    const char *name;
    const char *shortName;
    bool takesValue;
    const char *refusal;
};

const char *const ownActions = "KorvaneVarden's own actions move, copy and delete infected files, and it lists "
                               "each one where the scanner found it";
const char *const stopsEarly = "clamdscan would stop before it scans anything";

constexpr ScannerOption scannerOptions[] = {
    {"--verbose", "-v", false, nullptr},
    {"--stdout", nullptr, false, nullptr},
    {"--log", "-l", true, nullptr},
    {"--wait", "-w", false, nullptr},
    {"--allmatch", "-z", false, nullptr},
    {"--multiscan", "-m", false, nullptr},
    {"--infected", "-i", false, nullptr},
    {"--no-summary", nullptr, false, nullptr},
    {"--fdpass", nullptr, false, nullptr},
    {"--stream", nullptr, false, nullptr},
    {"--remove", nullptr, false, ownActions},
    {"--move", nullptr, true, ownActions},
    {"--copy", nullptr, true, ownActions},
    {"--quiet", nullptr, false, "it hides the infected files from KorvaneVarden"},
    {"--help", "-h", false, stopsEarly},
    {"--version", "-V", false, stopsEarly},
    {"--ping", "-p", true, stopsEarly},
    {"--reload", nullptr, false, stopsEarly},
    {"--file-list", "-f", true, "KorvaneVarden hands the scanner its files itself"},
    {"--config-file", "-c", true, "the engine installation chooses the daemon's configuration"},
};

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
    const QString absolute = absoluteFolder(folder);
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
    const QString absolute = absoluteFolder(folder);
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

QString CompanionSettings::exclusionProblem(const QVariantList &records, const QStringList &watched)
{
    for (const QVariant &entry : records) {
        const QVariantMap record = entry.toMap();
        const QString pattern = record.value(QStringLiteral("excludePattern")).toString();
        if (!record.value(QStringLiteral("excludeEnabled")).toBool() || pattern.isEmpty())
            continue;
        // The agent tests paths with these same predicates.
        const QXExclusionPredicate predicate = record.value(QStringLiteral("excludeRegEx")).toBool()
                                                   ? QXExclusionPredicate::matching(pattern)
                                                   : QXExclusionPredicate::containing(pattern);
        for (const QString &folder : watched) {
            const QString path = absoluteFolder(folder);
            const QString asFolder = path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
            if (predicate.evaluate(path) || predicate.evaluate(asFolder))
                return QStringLiteral("The exclusion “%1” matches the watched folder %2 itself, so nothing in it "
                                      "would be scanned.")
                    .arg(pattern, path);
        }
    }
    return {};
}

QString CompanionSettings::quarantineFolderProblem(const QString &folder, const QStringList &watched)
{
    if (folder.isEmpty())
        return {};
    const QString path = expanded(folder);
    if (QDir::isRelativePath(path))
        return QStringLiteral("The quarantine folder “%1” must be an absolute path (or start with “~/”).").arg(folder);
    const QFileInfo info(path);
    if (!info.isDir())
        return QStringLiteral("The quarantine folder %1 does not exist.").arg(info.filePath());
    if (info.canonicalFilePath() == QLatin1String("/"))
        return QStringLiteral("The whole disk cannot be the quarantine folder.");
    // The agent never scans inside the quarantine folder, and files moved
    // into a watched one would be found again.
    const QString clean = QDir::cleanPath(path);
    for (const QString &entry : watched) {
        const QString other = absoluteFolder(entry);
        if (clean == other)
            return QStringLiteral("The quarantine folder %1 is the watched folder %2. Choose a folder that is not "
                                  "watched.")
                .arg(clean, other);
        if (isInside(clean, other))
            return QStringLiteral("The quarantine folder %1 lies inside the watched folder %2. Choose a folder "
                                  "outside the watched folders.")
                .arg(clean, other);
        if (isInside(other, clean))
            return QStringLiteral("The quarantine folder %1 holds the watched folder %2, which would then never be "
                                  "scanned.")
                .arg(clean, other);
    }
    return {};
}

QString CompanionSettings::scannerArgumentsProblem(const QString &arguments)
{
    // The agent splits at every single blank, so two in a row make an empty argument.
    const QStringList words = arguments.split(QLatin1Char(' '));
    for (qsizetype i = 0; i < words.size(); ++i) {
        const QString &word = words[i];
        if (word.isEmpty())
            return QStringLiteral("The scanner arguments “%1” hold an empty argument: separate them with single "
                                  "blanks.")
                .arg(arguments);
        const auto isJoined = [&](const ScannerOption &o) {
            return word.startsWith(QLatin1String(o.name) + QLatin1Char('='));
        };
        const auto option = std::find_if(std::begin(scannerOptions), std::end(scannerOptions), [&](const auto &o) {
            return word == QLatin1String(o.name) || isJoined(o) || (o.shortName && word == QLatin1String(o.shortName));
        });
        if (option == std::end(scannerOptions))
            return QStringLiteral("“%1” is not a clamdscan option that KorvaneVarden can pass to the scanner.")
                .arg(word);
        if (option->refusal)
            return QStringLiteral("The scanner argument “%1” is refused: %2.")
                .arg(word, QString::fromUtf8(option->refusal));
        const QString needsValue = QStringLiteral("The scanner argument “%1” needs a value.").arg(word);
        if (isJoined(*option)) {
            if (!option->takesValue)
                return QStringLiteral("The scanner argument “%1” takes no value.").arg(word);
            if (word.size() == qsizetype(qstrlen(option->name)) + 1)
                return needsValue;
        } else if (option->takesValue && (++i >= words.size() || words[i].isEmpty())) {
            // As getopt does, the next word is the value.
            return needsValue;
        }
    }
    return {};
}

ScheduledScan::Schedule CompanionSettings::scheduledScan() const
{
    ScheduledScan::Schedule schedule;
    schedule.enabled = value(scheduleEnabledKey).toBool();
    for (const QVariant &folder : value(scheduleFoldersKey).toList()) {
        if (!folder.toString().isEmpty())
            schedule.folders << folder.toString();
    }
    bool isNumber = false;
    const int weekday = value(scheduleWeekdayKey).toInt(&isNumber);
    if (isNumber)
        schedule.weekday = weekday;
    const int hour = value(scheduleHourKey).toInt(&isNumber);
    if (isNumber)
        schedule.hour = hour;
    return schedule;
}

bool CompanionSettings::setScheduledScan(const ScheduledScan::Schedule &schedule, QString *error)
{
    const QString problem = ScheduledScan::problem(schedule);
    if (!problem.isEmpty()) {
        setError(error, problem);
        return false;
    }
    QVariantList folders;
    for (const QString &folder : schedule.folders)
        folders << abbreviated(expanded(folder));
    setValue(scheduleEnabledKey, schedule.enabled);
    setValue(scheduleFoldersKey, folders);
    setValue(scheduleWeekdayKey, schedule.weekday);
    setValue(scheduleHourKey, schedule.hour);
    return true;
}

QString CompanionSettings::guardProblem() const
{
    const QStringList watched = watchedFolders();
    QVariant quarantine = value(QStringLiteral("QuarantineFolder"));
    if (quarantine.typeId() == QMetaType::QVariantMap)
        quarantine = quarantine.toMap().value(QStringLiteral("path"));
    QString problem = quarantineFolderProblem(quarantine.toString(), watched);
    if (problem.isEmpty())
        problem = exclusionProblem(exclusionRecords(), watched);
    const QVariant arguments = value(QStringLiteral("AdditionalCmdLineArgs"));
    if (problem.isEmpty() && arguments.isValid())
        problem = scannerArgumentsProblem(arguments.toString());
    return problem;
}

bool CompanionSettings::save(QString *error)
{
    QString problem = guardProblem();
    if (problem.isEmpty())
        problem = ScheduledScan::problem(scheduledScan());
    if (!problem.isEmpty()) {
        setError(error, problem);
        return false;
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
