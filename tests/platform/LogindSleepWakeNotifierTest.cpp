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

void announceSleep(QDBusConnection &sender, bool sleeping)
{
    QDBusMessage signal =
        QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                   QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"));
    signal << sleeping;
    ASSERT_TRUE(sender.send(signal));
    // A round trip makes sure the signal has reached the bus before the next sender speaks.
    ASSERT_TRUE(sender.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.DBus")).isValid());
}

// A dbus-daemon of the test's own stands in for the system bus.
class LogindSleepWakeNotifierTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty())
            GTEST_SKIP() << "dbus-daemon is not installed";
        ASSERT_TRUE(bus.isRunning());
    }

    QDBusConnection logind()
    {
        QDBusConnection connection = bus.connect();
        EXPECT_TRUE(connection.registerService(QStringLiteral("org.freedesktop.login1")));
        return connection;
    }

    PrivateBus bus;
    LogCapture log;
};

} // namespace

TEST_F(LogindSleepWakeNotifierTest, TurnsLogindsPrepareForSleepIntoWakeAndSleepAndIgnoresEveryoneElse)
{
    QDBusConnection login = logind();
    QDBusConnection impostor = bus.connect();
    LogindSleepWakeNotifier notifier(bus.connect());
    QSignalSpy sleeps(&notifier, &SleepWakeNotifier::willSleep);
    QSignalSpy wakes(&notifier, &SleepWakeNotifier::didWake);

    // logind speaks after the impostor, so once it is heard the impostor would have been too.
    announceSleep(impostor, true);
    announceSleep(login, false);
    EXPECT_TRUE(QTest::qWaitFor([&] { return wakes.count() == 1; }, 10000));
    EXPECT_EQ(sleeps.count(), 0);

    announceSleep(impostor, false);
    announceSleep(login, true);
    EXPECT_TRUE(QTest::qWaitFor([&] { return sleeps.count() == 1; }, 10000));
    EXPECT_EQ(wakes.count(), 1);
    EXPECT_TRUE(notifier.isWatching());
    EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join('\n').toStdString();
}

TEST_F(LogindSleepWakeNotifierTest, WithoutLogindLogsOnceAndHearsItOnceItAppears)
{
    LogindSleepWakeNotifier notifier(bus.connect());
    QSignalSpy sleeps(&notifier, &SleepWakeNotifier::willSleep);
    EXPECT_EQ(log.lines(),
              QStringList{QStringLiteral("logind is not running: sleep and wake are not watched until it appears")});

    QDBusConnection login = logind();
    announceSleep(login, true);
    EXPECT_TRUE(QTest::qWaitFor([&] { return sleeps.count() == 1; }, 10000));
    EXPECT_EQ(log.lines().size(), 1);
}

TEST(LogindWithoutSystemBusTest, LogsOnceAndNeverEmits)
{
    const QString name = QStringLiteral("no-system-bus");
    LogCapture log;
    {
        LogindSleepWakeNotifier notifier(
            QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent/bus"), name));
        QSignalSpy sleeps(&notifier, &SleepWakeNotifier::willSleep);
        QSignalSpy wakes(&notifier, &SleepWakeNotifier::didWake);
        QCoreApplication::processEvents();

        EXPECT_FALSE(notifier.isWatching());
        ASSERT_EQ(log.lines().size(), 1);
        EXPECT_TRUE(log.lines().first().startsWith(QStringLiteral("no system bus: sleep and wake are not watched")));
        EXPECT_EQ(sleeps.count() + wakes.count(), 0);
    }
    QDBusConnection::disconnectFromBus(name);
}
