#include "platform/DBusDistributedNotificationCenter.h"
#include "tests/support/LogCapture.h"

#include <QProcess>
#include <QTest>
#include <gtest/gtest.h>

#include <memory>

namespace {

const QString quitName = "KorvaneVardenShouldQuit", restartName = "KorvaneVardenShouldRestart";

#define REQUIRE_SESSION_BUS()                                                                                          \
    if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS"))                                                       \
        GTEST_SKIP() << "needs a session bus; ctest runs these under dbus-run-session";

// Collects the objects of the notifications one observer hears.
struct Heard
{
    QObject observer;
    QStringList objects;

    void observe(DistributedNotificationCenter &center, const QString &name)
    {
        center.addObserver(&observer, name, [this](const QString &object) { objects.append(object); });
    }
};

// Sends the way another program would, without our code on the sending side.
void dbusSend(const QString &name, const QStringList &arguments = {})
{
    QProcess send;
    send.start("dbus-send", QStringList{"--session", "--type=signal", "/org/korvane/DistributedNotifications1",
                                        "org.korvane.DistributedNotifications1." + name}
                                + arguments);
    ASSERT_TRUE(send.waitForFinished(10000)) << send.errorString().toStdString();
    ASSERT_EQ(send.exitCode(), 0) << send.readAllStandardError().toStdString();
}

// Signals from different sending processes may reach the bus in either
// order, so only what was heard is compared, not its order.
bool waitForObjects(const Heard &heard, QStringList expected)
{
    if (!QTest::qWaitFor([&] { return heard.objects.size() >= expected.size(); }, 10000))
        return false;
    QStringList objects = heard.objects;
    objects.sort();
    expected.sort();
    return objects == expected;
}

} // namespace

TEST(DBusDistributedNotificationCenterTest, HearsANameFromAnySenderWithItsObject)
{
    REQUIRE_SESSION_BUS();
    DBusDistributedNotificationCenter center;
    ASSERT_TRUE(center.isConnected());
    Heard quit, other;
    quit.observe(center, quitName);
    other.observe(center, "KorvaneShouldOpenPrefs");

    dbusSend(quitName, {"string:KorvaneVarden"});
    EXPECT_TRUE(waitForObjects(quit, {"KorvaneVarden"})) << quit.objects.join(',').toStdString();
    const QString peerName = "second-session-connection";
    DBusDistributedNotificationCenter(QDBusConnection::connectToBus(QDBusConnection::SessionBus, peerName))
        .postNotificationName(quitName, "Korvane");
    QDBusConnection::disconnectFromBus(peerName);
    EXPECT_TRUE(waitForObjects(quit, {"KorvaneVarden", "Korvane"}));

    // A signal without its argument still counts, with an empty object.
    dbusSend(quitName);
    EXPECT_TRUE(waitForObjects(quit, {"KorvaneVarden", "Korvane", ""}));
    EXPECT_TRUE(other.objects.isEmpty());
}

TEST(DBusDistributedNotificationCenterTest, ObservationEndsWithRemovalOrDestruction)
{
    REQUIRE_SESSION_BUS();
    DBusDistributedNotificationCenter center;
    Heard staying, removed;
    staying.observe(center, quitName);
    removed.observe(center, quitName);
    removed.observe(center, restartName);
    int heardByDestroyed = 0;
    auto destroyed = std::make_unique<QObject>();
    center.addObserver(destroyed.get(), quitName, [&](const QString &) { ++heardByDestroyed; });

    center.removeObserver(&removed.observer);
    destroyed.reset();
    dbusSend(quitName, {"string:first"});
    dbusSend(restartName, {"string:first"});
    // The restart signal was sent last; once the staying observer hears a
    // later one, both earlier deliveries would have happened.
    staying.observe(center, restartName);
    dbusSend(restartName, {"string:second"});
    EXPECT_TRUE(waitForObjects(staying, {"first", "second"}));
    EXPECT_TRUE(removed.objects.isEmpty());
    EXPECT_EQ(heardByDestroyed, 0);

    // Observing again after the last observer of a name left works as before.
    center.removeObserver(&staying.observer);
    removed.observe(center, quitName);
    dbusSend(quitName, {"string:again"});
    EXPECT_TRUE(waitForObjects(removed, {"again"}));
}

TEST(DBusDistributedNotificationCenterTest, HandlerMayRemoveObserversWhileBeingNotified)
{
    REQUIRE_SESSION_BUS();
    DBusDistributedNotificationCenter center;
    QObject first, second;
    QStringList calls;
    center.addObserver(&first, quitName, [&](const QString &) {
        calls.append("first");
        center.removeObserver(&first);
        center.removeObserver(&second);
    });
    center.addObserver(&second, quitName, [&](const QString &) { calls.append("second"); });
    Heard later;
    later.observe(center, quitName);

    dbusSend(quitName, {"string:once"});
    dbusSend(quitName, {"string:twice"});
    EXPECT_TRUE(waitForObjects(later, {"once", "twice"}));
    EXPECT_EQ(calls, QStringList{"first"});
}

TEST(DBusDistributedNotificationCenterTest, WithoutABusLogsOnceAndDoesNothing)
{
    const QString name = "no-session-bus";
    LogCapture log;
    {
        DBusDistributedNotificationCenter center(
            QDBusConnection::connectToBus(QString("unix:path=/nonexistent/bus"), name));
        QObject observer;
        int heard = 0;
        center.addObserver(&observer, quitName, [&](const QString &) { ++heard; });
        center.postNotificationName(quitName, "KorvaneVarden");
        center.removeObserver(&observer);
        QCoreApplication::processEvents();

        EXPECT_FALSE(center.isConnected());
        ASSERT_EQ(log.lines().size(), 1);
        EXPECT_TRUE(log.lines().first().startsWith("no session bus: distributed notifications are off ("))
            << log.lines().first().toStdString();
        EXPECT_EQ(heard, 0);
    }
    QDBusConnection::disconnectFromBus(name);
}
