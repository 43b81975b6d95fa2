#include "ScanLogRotator.h"

#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/SystemLog.h"
#include "platform/UserFolders.h"

#include <QDir>

#include <algorithm>
#include <limits>

#include <unistd.h>

ScanLogRotator::ScanLogRotator(const QXUtils *utils, const LogRotationTool &tool)
    : _utils(utils)
    , _tool(tool)
{}

qint64 ScanLogRotator::sizeLimitFrom(const QVariant &preference)
{
    constexpr qint64 largest = std::numeric_limits<qint64>::max();
    switch (preference.typeId()) {
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
        return preference.toLongLong() > 0 ? preference.toLongLong() : defaultSizeLimitKB;
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return preference.toULongLong() > 0 ? qint64(std::min<quint64>(preference.toULongLong(), largest))
                                            : defaultSizeLimitKB;
    case QMetaType::Float:
    case QMetaType::Double: {
        // Only the integer part counts, so 0.5 is no size.
        const double value = preference.toDouble();
        if (value >= double(largest))
            return largest;
        return value >= 1 ? qint64(value) : defaultSizeLimitKB;
    }
    default:
        // Strings, booleans and anything else are not sizes.
        return defaultSizeLimitKB;
    }
}

qint64 ScanLogRotator::sizeLimit() const
{
    return sizeLimitFrom(_utils->readPreferenceForKey(QStringLiteral("rotateScanlogWhenSizeReaches")));
}

QString ScanLogRotator::logPath()
{
    return UserFolders::logs() + QStringLiteral("/KorvaneVarden-scan.log");
}

void ScanLogRotator::rotateLogFile()
{
    const QString log = logPath();
    QDir().mkpath(UserFolders::logs());
    const LogRotationTool::Result result = _tool.rotate(log, getuid(), getgid(), sizeLimit());
    if (result.outcome == LogRotationTool::Outcome::Ran || _reported.contains(result.outcome))
        return;
    _reported.append(result.outcome);
    SystemLog::log(QStringLiteral("Scan log %1 not rotated: %2").arg(log, result.detail));
}
