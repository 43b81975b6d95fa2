// The settings: built-in defaults, the companion's domain, and values of the wrong type.
#include "QXUtils.h"

#include "platform/BundleInfo.h"
#include "platform/Localization.h"
#include "platform/SystemLog.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"

#include <QDateTime>
#include <QHash>

namespace {

QVariantMap exclusionRecord(const char *commentKey, const QString &pattern, bool regEx)
{
    return {
        {QStringLiteral("excludeComments"), Localization::text(commentKey)},
        {QStringLiteral("excludePattern"), pattern},
        {QStringLiteral("excludeEnabled"), false},
        {QStringLiteral("excludeRegEx"), regEx},
    };
}

QVariantMap sourceRecord(const QString &path)
{
    return {{QStringLiteral("name"), path}};
}

enum class Kind { Any, Boolean, Number, String, StringOrRecord, Array, Date };

Kind kindOfKey(const QString &key)
{
    static const QHash<QString, Kind> kinds{
        {QStringLiteral("sourceContents"), Kind::Array},
        {QStringLiteral("AlertOnDetect"), Kind::Boolean},
        {QStringLiteral("AlertOnCompletion"), Kind::Boolean},
        {QStringLiteral("ScheduleUpdateTime"), Kind::Date},
        {QStringLiteral("ScheduleScanTime"), Kind::Date},
        {QStringLiteral("ExcludePatterns"), Kind::Array},
        {QStringLiteral("ScanEmail"), Kind::Boolean},
        {QStringLiteral("QuarantineInfected"), Kind::Boolean},
        {QStringLiteral("QuarantineFolder"), Kind::StringOrRecord},
        {QStringLiteral("LogScans"), Kind::Boolean},
        {QStringLiteral("SuppressSummary"), Kind::Boolean},
        {QStringLiteral("AdditionalCmdLineArgs"), Kind::String},
        {QStringLiteral("LogUpdates"), Kind::Boolean},
        {QStringLiteral("UpdateDefsOnLaunch"), Kind::Boolean},
        {QStringLiteral("PathToClamav"), Kind::String},
        {QStringLiteral("PathToUpdateLog"), Kind::String},
        {QStringLiteral("NeedsExit1FreshclamFlag"), Kind::Boolean},
        {QStringLiteral("VardenFolderArray"), Kind::Array},
        {QStringLiteral("rotateScanlogWhenSizeReaches"), Kind::Number},
        {QStringLiteral("SUEnableAutomaticChecks"), Kind::Boolean},
        {QStringLiteral("RescanAfterUpdate"), Kind::Boolean},
        {QStringLiteral("RescanJournalDays"), Kind::Number},
    };
    return kinds.value(key, Kind::Any);
}

bool hasKind(const QVariant &value, Kind kind)
{
    const int type = value.typeId();
    switch (kind) {
    case Kind::Any:
        return true;
    case Kind::Boolean:
        return type == QMetaType::Bool;
    case Kind::Number:
        return type == QMetaType::Int || type == QMetaType::UInt || type == QMetaType::LongLong
               || type == QMetaType::ULongLong || type == QMetaType::Double;
    case Kind::String:
        return type == QMetaType::QString;
    case Kind::StringOrRecord:
        return type == QMetaType::QString
               || (type == QMetaType::QVariantMap
                   && value.toMap().value(QStringLiteral("path")).typeId() == QMetaType::QString);
    case Kind::Array:
        return type == QMetaType::QVariantList || type == QMetaType::QStringList;
    case Kind::Date:
        return type == QMetaType::QDateTime;
    }
    return false;
}

// A word read as a boolean: YES when, after leading blanks, it starts with
// "Y", "y", "T" or "t", or, after a sign and zeros, with a digit 1 to 9. So a
// hand-written "NO" is off and "YES" is on, as the settings' own readers had it.
bool wordAsBoolean(const QString &word)
{
    qsizetype i = 0;
    while (i < word.size() && word.at(i).isSpace())
        ++i;
    if (i < word.size() && QStringLiteral("YyTt").contains(word.at(i)))
        return true;
    if (i < word.size() && (word.at(i) == QLatin1Char('+') || word.at(i) == QLatin1Char('-')))
        ++i;
    while (i < word.size() && word.at(i) == QLatin1Char('0'))
        ++i;
    return i < word.size() && word.at(i) >= QLatin1Char('1') && word.at(i) <= QLatin1Char('9');
}

// A value stored with another type than its key's, read as it comes: a word
// or a number where a boolean belongs reads as one; anything else that a
// reader of the key's type cannot take counts as absent.
QVariant readAsKind(const QVariant &value, Kind kind)
{
    if (kind == Kind::Boolean && value.typeId() == QMetaType::QString)
        return wordAsBoolean(value.toString());
    if (kind == Kind::Boolean && hasKind(value, Kind::Number))
        return value.toDouble() != 0;
    return QVariant();
}

} // namespace

QVariantMap QXUtils::builtInDefaults()
{
    const QDateTime schedule(QDate(2001, 3, 24), QTime(15, 45), Qt::UTC);
    return {
        {QStringLiteral("sourceContents"),
         QVariantList{sourceRecord(QStringLiteral("~")), sourceRecord(QStringLiteral("~/Documents")),
                      sourceRecord(QStringLiteral("~/Desktop"))}},
        {QStringLiteral("AlertOnDetect"), true},
        {QStringLiteral("ExcludePatterns"), QVariantList{exclusionRecord("EXCLUDE_JPG", QStringLiteral("jpg$"), true),
                                                         exclusionRecord("EXCLUDE_FOO", QStringLiteral("^foo"), true),
                                                         exclusionRecord("EXCLUDE_BAR", QStringLiteral("bar"), false)}},
        {QStringLiteral("LogScans"), true},
        {QStringLiteral("LogUpdates"), true},
        {QStringLiteral("QuarantineInfected"), false},
        {QStringLiteral("ScanEmail"), true},
        {QStringLiteral("UpdateDefsOnLaunch"), false},
        {QStringLiteral("AlertOnCompletion"), true},
        {QStringLiteral("ScheduleUpdateTime"), schedule},
        {QStringLiteral("ScheduleScanTime"), schedule},
        {QStringLiteral("RescanAfterUpdate"), true},
        {QStringLiteral("RescanJournalDays"), 14},
    };
}

void QXUtils::registerDefaultsAndDomains()
{
    const QVariantMap defaults = builtInDefaults();
    _preferences = UserDefaultsController::sharedUserDefaultsController();
    _preferences->defaults()->registerDefaults(defaults);
    _preferences->setInitialValues(
        {{QStringLiteral("sourceContents"), defaults.value(QStringLiteral("sourceContents"))}});
    if (!runningAsCompanion())
        _preferences->defaults()->addSuiteNamed(BundleInfo::companionIdentifier());
    _preferences->setAppliesImmediately(false);
}

bool QXUtils::runningAsCompanion()
{
    return BundleInfo::bundleIdentifier() == BundleInfo::companionIdentifier();
}

QVariant QXUtils::readPreferenceForKey(const QString &key) const
{
    const QVariant value = _preferences->value(key);
    const Kind kind = kindOfKey(key);
    if (!value.isValid() || hasKind(value, kind))
        return value;
    const QVariant read = readAsKind(value, kind);
    if (!_keysOfWrongType.contains(key)) {
        _keysOfWrongType.insert(key);
        SystemLog::log(QStringLiteral("preference %1 has a value of type %2; it reads as %3")
                           .arg(key, QString::fromLatin1(value.typeName()),
                                read.isValid() ? read.toString() : QStringLiteral("absent")));
    }
    return read.isValid() ? read : _preferences->defaults()->registrationDomain().value(key);
}

void QXUtils::setPreference(const QVariant &value, const QString &key)
{
    if (runningAsCompanion())
        _preferences->setValue(value, key);
}

void QXUtils::deletePreferenceForKey(const QString &key)
{
    if (runningAsCompanion())
        _preferences->setValue(QVariant(), key);
}

void QXUtils::syncPrefs()
{
    _preferences->setAppliesImmediately(true);
    _preferences->setAppliesImmediately(false);
}

void QXUtils::revertPrefs()
{
    _preferences->revert();
}
