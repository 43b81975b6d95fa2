#include "PrivateBus.h"

#include "platform/FreedesktopNotificationCenter.h"
#include "platform/StatusItem.h"
#include "tests/support/FakeNotificationService.h"
#include "tests/support/LogCapture.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>
#include <gtest/gtest.h>

#include <memory>

namespace {

const QString trayRoad = QStringLiteral("no notification service: notifications go to the tray icon (");

#define REQUIRE_DBUS_DAEMON()                                                                        \
    if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty())                    \
        GTEST_SKIP() << "dbus-daemon is not installed; it stands in for the session bus";

// The tray item as the fallback sees it: it remembers the messages it was
// asked to show and can be clicked.
class RecordingStatusItem : public StatusItem
{
public:
    QList<QStringList> messages;

    QIcon image() const override { return _image; }
    void setImage(const QIcon &image) override { _image = image; }
    QIcon alternateImage() const override { return _image; }
    void setAlternateImage(const QIcon &) override {}
    QMenu *menu() const override { return nullptr; }
    void setMenu(QMenu *) override {}
    void setHighlightMode(bool) override {}
    void showMessage(const QString &title, const QString &message) override { messages.append({title, message}); }

    void click() { emit messageClicked(); }

private:
    QIcon _image;
};

bool waitForCount(const FakeNotificationService &service, qsizetype count)
{
    return QTest::qWaitFor([&] { return service.notifications().size() >= count; }, 10000)
        && service.notifications().size() == count;
}

bool waitForCount(const QSignalSpy &spy, qsizetype count)
{
    return QTest::qWaitFor([&] { return spy.count() >= count; }, 10000) && spy.count() == count;
}

bool waitForCount(const RecordingStatusItem &tray, qsizetype count)
{
    return QTest::qWaitFor([&] { return tray.messages.size() >= count; }, 10000) && tray.messages.size() == count;
}

uint lastId(const FakeNotificationService &service)
{
    return service.notifications().isEmpty() ? 0 : service.notifications().last().id;
}

// Hears the service's closes on the centre's own connection. A connection
// hands on the messages of one sender in order, so once a close sent now is
// heard here, the centre has handled every signal the service sent before.
class Settler : public QObject
{
    Q_OBJECT
public:
    explicit Settler(QDBusConnection centersConnection)
    {
        _listening = centersConnection.connect(QStringLiteral("org.freedesktop.Notifications"),
                                               QStringLiteral("/org/freedesktop/Notifications"),
                                               QStringLiteral("org.freedesktop.Notifications"),
                                               QStringLiteral("NotificationClosed"), this, SLOT(closed(uint,uint)));
    }

    bool settle(FakeNotificationService &service)
    {
        // Far above any id the tests hand out.
        const uint marker = 1000000 + ++_sent;
        service.close(marker, 1);
        return _listening && QTest::qWaitFor([&] { return _heard.contains(marker); }, 10000);
    }

private slots:
    void closed(uint id, uint) { _heard.append(id); }

private:
    bool _listening = false;
    uint _sent = 0;
    QList<uint> _heard;
};

int countStartingWith(const LogCapture &log, const QString &prefix)
{
    int count = 0;
    for (const QString &line : log.lines())
        count += line.startsWith(prefix) ? 1 : 0;
    return count;
}

} // namespace

TEST(FreedesktopNotificationCenterTest, DeliversTitleAndTextWithADefaultActionToTheService)
{
    REQUIRE_DBUS_DAEMON();
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    FakeNotificationService service(bus.connect());
    ASSERT_TRUE(service.isRegistered());
    LogCapture log;
    RecordingStatusItem tray;
    FreedesktopNotificationCenter center(bus.connect());
    center.setFallbackStatusItem(&tray);
    EXPECT_TRUE(center.canDeliver());

    center.deliverNotification(QStringLiteral("Infection found"), QStringLiteral("EICAR in ~/Downloads/eicar.com"));
    ASSERT_TRUE(waitForCount(service, 1));
    const FakeNotificationService::Notification shown = service.notifications().first();
    EXPECT_EQ(shown.appName, QStringLiteral("KorvaneVarden"));
    EXPECT_EQ(shown.appIcon, QStringLiteral("org.korvane.KorvaneVarden"));
    EXPECT_EQ(shown.summary, QStringLiteral("Infection found"));
    EXPECT_EQ(shown.body, QStringLiteral("EICAR in ~/Downloads/eicar.com"));
    EXPECT_EQ(shown.replacesId, 0u);
    EXPECT_EQ(shown.expireTimeout, -1);
    // Actions come as key and label pairs.
    ASSERT_EQ(shown.actions.size(), 2);
    EXPECT_EQ(shown.actions.first(), QStringLiteral("default"));
    EXPECT_EQ(shown.hints.value(QStringLiteral("sound-name")).toString(), QStringLiteral("message-new-instant"));
    EXPECT_EQ(shown.hints.value(QStringLiteral("desktop-entry")).toString(), QStringLiteral("org.korvane.KorvaneVarden"));
    EXPECT_FALSE(center.isServiceMissing());
    EXPECT_TRUE(tray.messages.isEmpty());
    EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join('\n').toStdString();
}

TEST(FreedesktopNotificationCenterTest, ActivatesOnceForAClickOnItsOwnNotificationOnly)
{
    REQUIRE_DBUS_DAEMON();
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    FakeNotificationService service(bus.connect());
    ASSERT_TRUE(service.isRegistered());
    QDBusConnection impostor = bus.connect();
    QDBusConnection connection = bus.connect();
    FreedesktopNotificationCenter center(connection);
    Settler settler(connection);
    QSignalSpy activated(&center, &UserNotificationCenter::activated);
    FreedesktopNotificationCenter otherProgram(bus.connect());
    QSignalSpy otherActivated(&otherProgram, &UserNotificationCenter::activated);

    center.deliverNotification(QStringLiteral("ours"), QString());
    ASSERT_TRUE(waitForCount(service, 1));
    const uint ours = lastId(service);
    otherProgram.deliverNotification(QStringLiteral("theirs"), QString());
    ASSERT_TRUE(waitForCount(service, 2));
    const uint theirs = lastId(service);

    service.invokeAction(theirs);
    service.invokeAction(ours, QStringLiteral("snooze"));
    // Only the owner of the service name speaks for it.
    QDBusMessage forged = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/Notifications"),
                                                     QStringLiteral("org.freedesktop.Notifications"),
                                                     QStringLiteral("ActionInvoked"));
    forged << ours << QStringLiteral("default");
    ASSERT_TRUE(impostor.send(forged));
    // A round trip puts the forged signal on the bus before the service's next one.
    ASSERT_TRUE(impostor.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.DBus")).isValid());
    ASSERT_TRUE(settler.settle(service));
    EXPECT_EQ(activated.count(), 0);
    EXPECT_TRUE(waitForCount(otherActivated, 1));

    // Servers follow a click with a close, some repeat the click.
    service.invokeAction(ours);
    service.invokeAction(ours);
    service.close(ours, 2);
    ASSERT_TRUE(settler.settle(service));
    EXPECT_EQ(activated.count(), 1);

    // A click arriving after the close belongs to no notification of ours.
    center.deliverNotification(QStringLiteral("dismissed"), QString());
    ASSERT_TRUE(waitForCount(service, 3));
    service.close(lastId(service), 2);
    service.invokeAction(lastId(service));
    ASSERT_TRUE(settler.settle(service));
    EXPECT_EQ(activated.count(), 1);
    EXPECT_EQ(otherActivated.count(), 1);
}

TEST(FreedesktopNotificationCenterTest, IdsOfARestartedServiceAreNotTakenForOurs)
{
    REQUIRE_DBUS_DAEMON();
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    auto first = std::make_unique<FakeNotificationService>(bus.connect());
    ASSERT_TRUE(first->isRegistered());
    QDBusConnection connection = bus.connect();
    FreedesktopNotificationCenter center(connection);
    Settler settler(connection);
    QSignalSpy activated(&center, &UserNotificationCenter::activated);
    center.deliverNotification(QStringLiteral("before the restart"), QString());
    ASSERT_TRUE(waitForCount(*first, 1));
    const uint oldId = lastId(*first);
    first.reset();

    FakeNotificationService second(bus.connect());
    ASSERT_TRUE(second.isRegistered());
    // The new server counts from the start again and gives our old id to someone else.
    second.invokeAction(oldId);
    ASSERT_TRUE(settler.settle(second));
    EXPECT_EQ(activated.count(), 0);

    center.deliverNotification(QStringLiteral("after the restart"), QString());
    ASSERT_TRUE(waitForCount(second, 1));
    EXPECT_EQ(lastId(second), oldId);
    second.invokeAction(lastId(second));
    ASSERT_TRUE(settler.settle(second));
    EXPECT_EQ(activated.count(), 1);
    EXPECT_FALSE(center.isServiceMissing());
}

TEST(FreedesktopNotificationCenterTest, WithoutAServiceUsesTheTrayUntilOneAppears)
{
    REQUIRE_DBUS_DAEMON();
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    LogCapture log;
    RecordingStatusItem tray;
    FreedesktopNotificationCenter center(bus.connect());
    center.setFallbackStatusItem(&tray);
    QSignalSpy activated(&center, &UserNotificationCenter::activated);

    center.deliverNotification(QStringLiteral("Infection found"), QStringLiteral("first"));
    ASSERT_TRUE(waitForCount(tray, 1));
    EXPECT_EQ(tray.messages.first(), (QStringList{QStringLiteral("Infection found"), QStringLiteral("first")}));
    EXPECT_TRUE(center.isServiceMissing());
    EXPECT_TRUE(center.canDeliver());
    center.deliverNotification(QStringLiteral("Infection found"), QStringLiteral("second"));
    // Once the service is known missing the tray gets it without a call.
    EXPECT_EQ(tray.messages.size(), 2);
    EXPECT_EQ(countStartingWith(log, trayRoad), 1);
    EXPECT_EQ(log.lines().size(), 1) << log.lines().join('\n').toStdString();

    tray.click();
    EXPECT_EQ(activated.count(), 1);

    FakeNotificationService service(bus.connect());
    ASSERT_TRUE(service.isRegistered());
    EXPECT_TRUE(QTest::qWaitFor([&] { return !center.isServiceMissing(); }, 10000));
    center.deliverNotification(QStringLiteral("Infection found"), QStringLiteral("third"));
    ASSERT_TRUE(waitForCount(service, 1));
    EXPECT_EQ(service.notifications().first().body, QStringLiteral("third"));
    EXPECT_EQ(tray.messages.size(), 2);

    // The tray goes back to being only the tray.
    center.setFallbackStatusItem(nullptr);
    tray.click();
    EXPECT_EQ(activated.count(), 1);
}

TEST(FreedesktopNotificationCenterTest, AFailedOrUnansweredNotificationAloneGoesToTheTray)
{
    REQUIRE_DBUS_DAEMON();
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    FakeNotificationService service(bus.connect());
    ASSERT_TRUE(service.isRegistered());
    LogCapture log;
    RecordingStatusItem tray;
    FreedesktopNotificationCenter center(bus.connect());
    center.setFallbackStatusItem(&tray);

    service.setAnswer(FakeNotificationService::Answer::WithError);
    center.deliverNotification(QStringLiteral("refused"), QString());
    ASSERT_TRUE(waitForCount(tray, 1));
    EXPECT_EQ(tray.messages.last().first(), QStringLiteral("refused"));
    EXPECT_FALSE(center.isServiceMissing());

    service.setAnswer(FakeNotificationService::Answer::Never);
    center.deliverNotification(QStringLiteral("unanswered"), QString());
    ASSERT_TRUE(waitForCount(tray, 2));
    EXPECT_EQ(tray.messages.last().first(), QStringLiteral("unanswered"));

    service.setAnswer(FakeNotificationService::Answer::WithId);
    center.deliverNotification(QStringLiteral("shown"), QString());
    ASSERT_TRUE(waitForCount(service, 1));
    EXPECT_EQ(service.notifications().first().summary, QStringLiteral("shown"));
    EXPECT_EQ(tray.messages.size(), 2);
    EXPECT_EQ(countStartingWith(log, QStringLiteral("the notification service did not show a notification: it goes to the tray icon (")), 2)
        << log.lines().join('\n').toStdString();
}

TEST(FreedesktopNotificationCenterTest, WithoutASessionBusOnlyTheTrayCanDeliver)
{
    const QString name = QStringLiteral("no-session-bus");
    LogCapture log;
    {
        FreedesktopNotificationCenter center(
            QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent/bus"), name));
        QSignalSpy activated(&center, &UserNotificationCenter::activated);
        EXPECT_TRUE(center.isServiceMissing());
        EXPECT_FALSE(center.canDeliver());
        center.deliverNotification(QStringLiteral("lost"), QString());
        center.deliverNotification(QStringLiteral("lost too"), QString());
        EXPECT_EQ(countStartingWith(log, QStringLiteral("no notification service and no tray icon: notifications are not shown (no session bus")), 1)
            << log.lines().join('\n').toStdString();

        RecordingStatusItem tray;
        center.setFallbackStatusItem(&tray);
        EXPECT_TRUE(center.canDeliver());
        center.deliverNotification(QStringLiteral("Infection found"), QStringLiteral("in the tray"));
        ASSERT_EQ(tray.messages.size(), 1);
        EXPECT_EQ(tray.messages.first(), (QStringList{QStringLiteral("Infection found"), QStringLiteral("in the tray")}));
        tray.click();
        EXPECT_EQ(activated.count(), 1);
        EXPECT_EQ(countStartingWith(log, trayRoad + QStringLiteral("no session bus")), 1);
        EXPECT_EQ(log.lines().size(), 2) << log.lines().join('\n').toStdString();
    }
    QDBusConnection::disconnectFromBus(name);
}

#include "FreedesktopNotificationCenterTest.moc"
