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

#include <algorithm>
#include <memory>

namespace {

// The tray item as the fallback sees it: it remembers the messages it was
// asked to show and can be clicked.
class RecordingStatusItem : public StatusItem
{
public:
    QList<QStringList> messages;

    QIcon image() const override { return {}; }
    void setImage(const QIcon &) override {}
    QIcon alternateImage() const override { return {}; }
    void setAlternateImage(const QIcon &) override {}
    QMenu *menu() const override { return nullptr; }
    void setMenu(QMenu *) override {}
    void setHighlightMode(bool) override {}
    void showMessage(const QString &title, const QString &message) override { messages.append({title, message}); }

    void click() { emit messageClicked(); }
};

// Waits until there are count of something, and answers whether there are exactly count.
bool waitForCount(const std::function<qsizetype()> &current, qsizetype count)
{
    return QTest::qWaitFor([&] { return current() >= count; }, 10000) && current() == count;
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
        _listening = centersConnection.connect("org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                                               "org.freedesktop.Notifications", "NotificationClosed", this,
                                               SLOT(closed(uint, uint)));
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
    const QStringList lines = log.lines();
    return int(std::count_if(lines.begin(), lines.end(), [&](const QString &line) { return line.startsWith(prefix); }));
}

const QString trayRoad = "no notification service: notifications go to the tray icon (";

} // namespace

// A bus of the test's own, a centre on it with the tray as its fallback.
class FreedesktopNotificationCenterTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (QStandardPaths::findExecutable("dbus-daemon").isEmpty())
            GTEST_SKIP() << "dbus-daemon is not installed; it stands in for the session bus";
        ASSERT_TRUE(bus.isRunning());
        center.setFallbackStatusItem(&tray);
    }

    std::unique_ptr<FakeNotificationService> serve()
    {
        auto service = std::make_unique<FakeNotificationService>(bus.connect());
        EXPECT_TRUE(service->isRegistered());
        return service;
    }
    static auto shown(const FakeNotificationService &service)
    {
        return [s = &service] { return s->notifications().size(); };
    }
    auto inTray()
    {
        return [this] { return tray.messages.size(); };
    }

    PrivateBus bus;
    LogCapture log;
    RecordingStatusItem tray;
    QDBusConnection connection = bus.connect();
    FreedesktopNotificationCenter center{connection};
    Settler settler{connection};
    QSignalSpy activated{&center, &UserNotificationCenter::activated};
};

TEST_F(FreedesktopNotificationCenterTest, ActivatesOnceForAClickOnItsOwnNotificationOnly)
{
    auto service = serve();
    QDBusConnection impostor = bus.connect();
    FreedesktopNotificationCenter otherProgram(bus.connect());
    QSignalSpy otherActivated(&otherProgram, &UserNotificationCenter::activated);

    center.deliverNotification("ours", QString());
    ASSERT_TRUE(waitForCount(shown(*service), 1));
    const uint ours = lastId(*service);
    otherProgram.deliverNotification("theirs", QString());
    ASSERT_TRUE(waitForCount(shown(*service), 2));

    service->invokeAction(lastId(*service));
    service->invokeAction(ours, "snooze");
    // Only the owner of the service name speaks for it.
    QDBusMessage forged =
        QDBusMessage::createSignal("/org/freedesktop/Notifications", "org.freedesktop.Notifications", "ActionInvoked");
    forged << ours << QString("default");
    ASSERT_TRUE(impostor.send(forged));
    // A round trip puts the forged signal on the bus before the service's next one.
    ASSERT_TRUE(impostor.interface()->isServiceRegistered("org.freedesktop.DBus").isValid());
    ASSERT_TRUE(settler.settle(*service));
    EXPECT_EQ(activated.count(), 0);
    EXPECT_TRUE(waitForCount([&] { return otherActivated.count(); }, 1));

    // Servers follow a click with a close, some repeat the click.
    service->invokeAction(ours);
    service->invokeAction(ours);
    service->close(ours, 2);
    ASSERT_TRUE(settler.settle(*service));
    EXPECT_EQ(activated.count(), 1);

    // A click arriving after the close belongs to no notification of ours.
    center.deliverNotification("dismissed", QString());
    ASSERT_TRUE(waitForCount(shown(*service), 3));
    service->close(lastId(*service), 2);
    service->invokeAction(lastId(*service));
    ASSERT_TRUE(settler.settle(*service));
    EXPECT_EQ(activated.count(), 1);
    EXPECT_EQ(otherActivated.count(), 1);
}

TEST_F(FreedesktopNotificationCenterTest, IdsOfARestartedServiceAreNotTakenForOurs)
{
    auto first = serve();
    center.deliverNotification("before the restart", QString());
    ASSERT_TRUE(waitForCount(shown(*first), 1));
    const uint oldId = lastId(*first);
    first.reset();

    auto second = serve();
    // The new server counts from the start again and gives our old id to someone else.
    second->invokeAction(oldId);
    ASSERT_TRUE(settler.settle(*second));
    EXPECT_EQ(activated.count(), 0);

    center.deliverNotification("after the restart", QString());
    ASSERT_TRUE(waitForCount(shown(*second), 1));
    EXPECT_EQ(lastId(*second), oldId);
    second->invokeAction(oldId);
    ASSERT_TRUE(settler.settle(*second));
    EXPECT_EQ(activated.count(), 1);
    EXPECT_FALSE(center.isServiceMissing());
}

TEST_F(FreedesktopNotificationCenterTest, WithoutAServiceUsesTheTrayUntilOneAppearsAndThenDeliversToIt)
{
    center.deliverNotification("Infection found", "first");
    ASSERT_TRUE(waitForCount(inTray(), 1));
    EXPECT_EQ(tray.messages.first(), (QStringList{"Infection found", "first"}));
    EXPECT_TRUE(center.isServiceMissing());
    EXPECT_TRUE(center.canDeliver());
    center.deliverNotification("Infection found", "second");
    // Once the service is known missing the tray gets it without a call.
    EXPECT_EQ(tray.messages.size(), 2);
    EXPECT_EQ(countStartingWith(log, trayRoad), 1);
    tray.click();
    EXPECT_EQ(activated.count(), 1);

    auto service = serve();
    EXPECT_TRUE(QTest::qWaitFor([&] { return !center.isServiceMissing(); }, 10000));
    center.deliverNotification("Infection found", "EICAR in ~/Downloads/eicar.com");
    ASSERT_TRUE(waitForCount(shown(*service), 1));
    const FakeNotificationService::Notification sent = service->notifications().first();
    EXPECT_EQ(QStringList({sent.summary, sent.body}), QStringList({"Infection found", "EICAR in ~/Downloads/eicar.com"}));
    // Without a default action the server offers nothing to click.
    EXPECT_EQ(sent.actions.value(0), "default");
    EXPECT_EQ(tray.messages.size(), 2);
    EXPECT_EQ(log.lines().size(), 1) << log.lines().join('\n').toStdString();

    // The tray goes back to being only the tray.
    center.setFallbackStatusItem(nullptr);
    tray.click();
    EXPECT_EQ(activated.count(), 1);
}

TEST_F(FreedesktopNotificationCenterTest, AFailedOrUnansweredNotificationAloneGoesToTheTray)
{
    auto service = serve();
    const struct
    {
        FakeNotificationService::Answer answer;
        QString title;
    } cases[]{{FakeNotificationService::Answer::WithError, "refused"},
              {FakeNotificationService::Answer::Never, "unanswered"}};
    for (const auto &c : cases) {
        service->setAnswer(c.answer);
        center.deliverNotification(c.title, QString());
        ASSERT_TRUE(waitForCount(inTray(), &c - cases + 1));
        EXPECT_EQ(tray.messages.last().first(), c.title);
        EXPECT_FALSE(center.isServiceMissing());
    }
    service->setAnswer(FakeNotificationService::Answer::WithId);
    center.deliverNotification("shown", QString());
    ASSERT_TRUE(waitForCount(shown(*service), 1));
    EXPECT_EQ(service->notifications().first().summary, "shown");
    EXPECT_EQ(tray.messages.size(), 2);
    EXPECT_EQ(
        countStartingWith(log, "the notification service did not show a notification: it goes to the tray icon ("), 2)
        << log.lines().join('\n').toStdString();
}

TEST_F(FreedesktopNotificationCenterTest, WithoutASessionBusOnlyTheTrayCanDeliver)
{
    const QString name = "no-session-bus";
    {
        FreedesktopNotificationCenter lost(QDBusConnection::connectToBus(QString("unix:path=/nonexistent/bus"), name));
        QSignalSpy lostActivated(&lost, &UserNotificationCenter::activated);
        EXPECT_TRUE(lost.isServiceMissing());
        EXPECT_FALSE(lost.canDeliver());
        lost.deliverNotification("lost", QString());
        lost.deliverNotification("lost too", QString());
        EXPECT_EQ(countStartingWith(
                      log, "no notification service and no tray icon: notifications are not shown (no session bus"),
                  1)
            << log.lines().join('\n').toStdString();

        RecordingStatusItem ownTray;
        lost.setFallbackStatusItem(&ownTray);
        EXPECT_TRUE(lost.canDeliver());
        lost.deliverNotification("Infection found", "in the tray");
        ASSERT_EQ(ownTray.messages.size(), 1);
        EXPECT_EQ(ownTray.messages.first(), (QStringList{"Infection found", "in the tray"}));
        ownTray.click();
        EXPECT_EQ(lostActivated.count(), 1);
        EXPECT_EQ(countStartingWith(log, trayRoad + "no session bus"), 1);
        EXPECT_EQ(log.lines().size(), 2) << log.lines().join('\n').toStdString();
    }
    QDBusConnection::disconnectFromBus(name);
}

#include "FreedesktopNotificationCenterTest.moc"
