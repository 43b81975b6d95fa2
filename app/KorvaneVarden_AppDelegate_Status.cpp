// The guard's status: what lowers it, and how the user sees it.
#include "KorvaneVarden_AppDelegate.h"

#include "Dispatcher.h"
#include "ProtectionStatus.h"
#include "SelfTest.h"
#include "events/SCEvents.h"
#include "platform/Localization.h"
#include "platform/NamedImage.h"
#include "platform/StatusItem.h"
#include "platform/SystemLog.h"
#include "platform/UserNotificationCenter.h"

#include <QLocale>

namespace {

const QString watchingKey = QStringLiteral("watching");
const QString definitionsKey = QStringLiteral("definitions");
const QString settingsPrefix = QStringLiteral("settings:");

} // namespace

void KorvaneVarden_AppDelegate::setupProtectionStatus()
{
    _protectionStatus->setReason(watchingKey, ProtectionStatus::Off, QStringLiteral("not watching yet"));
    connect(_protectionStatus, &ProtectionStatus::changed, this, &KorvaneVarden_AppDelegate::showProtectionStatus);
    connect(_protectionStatus, &ProtectionStatus::worsened, this,
            [this](ProtectionStatus::Level level, const QString &reason) { tellOfWorseStatus(level, reason); });
    connect(_protectionStatus, &ProtectionStatus::protectedAgain, this,
            &KorvaneVarden_AppDelegate::tellOfProtectionAgain);
    showProtectionStatus();
    // Definitions age while the agent runs.
    _definitionsAgeTimer.setInterval(3600 * 1000);
    connect(&_definitionsAgeTimer, &QTimer::timeout, this, &KorvaneVarden_AppDelegate::checkDefinitionsAge);
    _definitionsAgeTimer.start();

    _selfTest = new SelfTest([this] { return _utils->scanning(); }, this);
    connect(_selfTest, &SelfTest::passed, this,
            [this] { _protectionStatus->clearReason(QStringLiteral("self-test")); });
    connect(_selfTest, &SelfTest::failed, this, [this](const QString &reason) {
        _protectionStatus->setReason(QStringLiteral("self-test"), ProtectionStatus::Off, reason);
    });
    _selfTestTimer.setInterval(SelfTest::intervalMs);
    connect(&_selfTestTimer, &QTimer::timeout, this, &KorvaneVarden_AppDelegate::runSelfTest);
}

namespace {
bool selfTestEnabled = true;
}

bool KorvaneVarden_AppDelegate::isSelfTestEnabled()
{
    return selfTestEnabled;
}

void KorvaneVarden_AppDelegate::setSelfTestEnabled(bool enabled)
{
    selfTestEnabled = enabled;
}

void KorvaneVarden_AppDelegate::runSelfTest()
{
    if (!selfTestEnabled || !_watching || _quitting || !_events)
        return;
    // The latency and three ticks of the dispatcher.
    const int deadline = int(_events->notificationLatency() * 1000) + 3 * _dispatcher->dispatchTimer()->interval();
    _selfTest->start(deadline);
    _selfTestTimer.start();
}

bool KorvaneVarden_AppDelegate::scanSelfTestApart(QStringList &batch)
{
    QStringList own;
    for (const QString &path : std::as_const(batch)) {
        if (_selfTest->owns(path))
            own << path;
    }
    if (own.isEmpty())
        return false;
    if (own.size() < batch.size()) {
        // The user's files first; the test file goes at the next tick.
        for (const QString &path : std::as_const(own))
            batch.removeAll(path);
        _dispatcher->setReadyList(own + _dispatcher->readyList());
        return false;
    }
    for (const QString &path : std::as_const(own))
        _selfTest->dispatched(path);
    return true;
}

void KorvaneVarden_AppDelegate::showProtectionStatus()
{
    const ProtectionStatus::Level level = _protectionStatus->level();
    static const char *const titles[] = {"PROTECTION_PROTECTED", "PROTECTION_PARTIAL", "PROTECTION_OFF"};
    static const char *const badges[] = {nullptr, "partialBadge", "offBadge"};
    QStringList lines{Localization::text(titles[level])};
    for (const QString &reason : _protectionStatus->reasons())
        lines << QStringLiteral("• ") + reason;
    _throbberStatusItem->setToolTip(lines.join(QLatin1Char('\n')));
    _throbberStatusItem->setBadge(badges[level] ? NamedImage::imageNamed(QLatin1String(badges[level])) : QIcon());
}

void KorvaneVarden_AppDelegate::tellOfWorseStatus(int level, const QString &reason)
{
    SystemLog::log(QStringLiteral("protection %1: %2")
                       .arg(ProtectionStatus::levelName(ProtectionStatus::Level(level)), reason));
    if (_quitting)
        return;
    _toldOfWorseStatus = true;
    UserNotificationCenter *center = UserNotificationCenter::defaultCenter();
    if (center->canDeliver())
        center->deliverNotification(
            Localization::text(level == ProtectionStatus::Off ? "PROTECTION_OFF_TITLE" : "PROTECTION_PARTIAL_TITLE"),
            reason);
}

void KorvaneVarden_AppDelegate::tellOfProtectionAgain()
{
    SystemLog::log(QStringLiteral("protected"));
    // The first start is no news.
    if (!_toldOfWorseStatus || _quitting)
        return;
    _toldOfWorseStatus = false;
    UserNotificationCenter *center = UserNotificationCenter::defaultCenter();
    if (center->canDeliver())
        center->deliverNotification(Localization::text("PROTECTED_AGAIN_TITLE"),
                                    Localization::text("PROTECTED_AGAIN_MESSAGE"));
}

void KorvaneVarden_AppDelegate::pathWatcherCoverageChanged(SCEvents *, const QString &root, const QString &problem)
{
    const QString key = QStringLiteral("folder:") + root;
    if (problem.isEmpty()) {
        _protectionStatus->clearReason(key);
        return;
    }
    // The watcher tells of its limit itself, with the setting to raise.
    const bool limit = problem.contains(QLatin1String("max_user_watches"));
    _protectionStatus->setReason(key, ProtectionStatus::Partial,
                                 limit ? QStringLiteral("some folders under %1 are not watched: %2").arg(root, problem)
                                       : QStringLiteral("%1 is not watched: %2").arg(root, problem),
                                 limit);
}

void KorvaneVarden_AppDelegate::savedSearchCutAtPath(const QString &path, qint64 entries)
{
    // Until the next start of watching: the search is cut again at every scan.
    _protectionStatus->setReason(
        QStringLiteral("saved-search:") + path, ProtectionStatus::Partial,
        QStringLiteral("the saved search %1 finds more than %2 entries: the files past them are not scanned")
            .arg(path)
            .arg(entries));
}

void KorvaneVarden_AppDelegate::takeSettingsConflicts()
{
    QStringList keys;
    const QStringList conflicts = _utils->settingsConflicts();
    for (const QString &conflict : conflicts)
        keys << settingsPrefix + conflict;
    _protectionStatus->clearReasons(settingsPrefix, keys);
    for (const QString &conflict : conflicts)
        _protectionStatus->setReason(settingsPrefix + conflict, ProtectionStatus::Partial, conflict);
}

void KorvaneVarden_AppDelegate::takeDefinitionsDate(const QString &engineVersion)
{
    // "ClamAV 1.4.6/27400/Sun Nov 22 09:00:00 2026": the date is the newest definitions'.
    const QString date = engineVersion.section(QLatin1Char('/'), 2).simplified();
    _definitionsDate = QLocale::c().toDateTime(date, QStringLiteral("ddd MMM d HH:mm:ss yyyy"));
    checkDefinitionsAge();
}

void KorvaneVarden_AppDelegate::checkDefinitionsAge()
{
    if (!_definitionsDate.isValid()) {
        _protectionStatus->clearReason(definitionsKey);
        return;
    }
    const qint64 days = _definitionsDate.daysTo(QDateTime::currentDateTime());
    if (days > definitionsMaxAgeDays)
        _protectionStatus->setReason(
            definitionsKey, ProtectionStatus::Partial,
            QStringLiteral("the virus definitions are %1 days old: new viruses are not recognised").arg(days));
    else
        _protectionStatus->clearReason(definitionsKey);
}
