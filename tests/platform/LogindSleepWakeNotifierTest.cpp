#include "PrivateBus.h"

#include "platform/LogindSleepWakeNotifier.h"
#include "tests/support/LogCapture.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>
#include <gtest/gtest.h>

namespace {

const QString notRunning = QStringLiteral("logind is not running: sleep and wake are not watched until it appears");

#define REQUIRE_DBUS_DAEMON()                                                                        \
    if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty())                    \
        GTEST_SKIP() << "dbus-daemon is not installed; it stands in for the system bus";

void announceSleep(QDBusConnection &sender, bool sleeping)
{
    QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                                     QStringLiteral("org.freedesktop.login1.Manager"),
                                                     QStringLiteral("PrepareForSleep"));
    signal << sleeping;
    ASSERT_TRUE(sender.send(signal));
    // A round trip makes sure the signal has reached the bus before the next sender speaks.
    ASSERT_TRUE(sender.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.DBus")).isValid());
}

int countStartingWith(const LogCapture &log, const QString &prefix)
{
    int count = 0;
    for (const QString &line : log.lines())
        count += line.startsWith(prefix) ? 1 : 0;
    return count;
}

} // namespace

TEST(LogindSleepWakeNotifierTest, TurnsPrepareForSleepIntoSleepAndWake)
{
    REQUIRE_DBUS_DAEMON();
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    QDBusConnection logind = bus.connect();
    ASSERT_TRUE(logind.registerService(QStringLiteral("org.freedesktop.login1")));
    LogCapture log;
    LogindSleepWakeNotifier notifier(bus.connect());
    QSignalSpy sleeps(&notifier, &SleepWakeNotifier::willSleep);
    QSignalSpy wakes(&notifier, &SleepWakeNotifier::didWake);

    announceSleep(logind, true);
    EXPECT_TRUE(QTest::qWaitFor([&] { return sleeps.count() == 1; }, 10000));
    EXPECT_EQ(wakes.count(), 0);

    announceSleep(logind, false);
    EXPECT_TRUE(QTest::qWaitFor([&] { return wakes.count() == 1; }, 10000));
    EXPECT_EQ(sleeps.count(), 1);
    EXPECT_TRUE(notifier.isWatching());
    EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join('\n').toStdString();
}

TEST(LogindSleepWakeNotifierTest, IgnoresPrepareForSleepFromAnyoneButLogind)
{
    REQUIRE_DBUS_DAEMON();
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    QDBusConnection logind = bus.connect();
    ASSERT_TRUE(logind.registerService(QStringLiteral("org.freedesktop.login1")));
    QDBusConnection impostor = bus.connect();
    LogindSleepWakeNotifier notifier(bus.connect());
    QSignalSpy sleeps(&notifier, &SleepWakeNotifier::willSleep);
    QSignalSpy wakes(&notifier, &SleepWakeNotifier::didWake);

    announceSleep(impostor, true);
    // logind's signal comes after the impostor's, so once it is heard the other would have been too.
    announceSleep(logind, false);
    EXPECT_TRUE(QTest::qWaitFor([&] { return wakes.count() == 1; }, 10000));
    EXPECT_EQ(sleeps.count(), 0);
}

TEST(LogindSleepWakeNotifierTest, WithoutLogindLogsOnceAndHearsItOnceItAppears)
{
    REQUIRE_DBUS_DAEMON();
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    LogCapture log;
    LogindSleepWakeNotifier notifier(bus.connect());
    QSignalSpy sleeps(&notifier, &SleepWakeNotifier::willSleep);
    EXPECT_EQ(log.count(notRunning), 1);
    EXPECT_EQ(log.lines().size(), 1);

    QDBusConnection logind = bus.connect();
    ASSERT_TRUE(logind.registerService(QStringLiteral("org.freedesktop.login1")));
    announceSleep(logind, true);
    EXPECT_TRUE(QTest::qWaitFor([&] { return sleeps.count() == 1; }, 10000));
    EXPECT_EQ(log.lines().size(), 1);
}

TEST(LogindSleepWakeNotifierTest, WithoutSystemBusLogsOnceAndNeverEmits)
{
    const QString name = QStringLiteral("no-system-bus");
    LogCapture log;
    {
        LogindSleepWakeNotifier notifier(QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent/bus"), name));
        QSignalSpy sleeps(&notifier, &SleepWakeNotifier::willSleep);
        QSignalSpy wakes(&notifier, &SleepWakeNotifier::didWake);
        QCoreApplication::processEvents();

        EXPECT_FALSE(notifier.isWatching());
        EXPECT_EQ(countStartingWith(log, QStringLiteral("no system bus: sleep and wake are not watched")), 1);
        EXPECT_EQ(log.lines().size(), 1);
        EXPECT_EQ(sleeps.count() + wakes.count(), 0);
    }
    QDBusConnection::disconnectFromBus(name);
}
