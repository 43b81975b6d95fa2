#pragma once

#include <QDBusConnection>
#include <QDBusContext>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

// A desktop notification server for tests: owns org.freedesktop.Notifications
// on the connection it is given, records every Notify and sends the signals a
// user's click or dismissal would. Give it a connection of its own (a second
// connectToBus name or PrivateBus::connect) so that the bus sees it as a peer
// apart from the program under test. Its calls are answered on the thread of
// the object, so tests keep the event loop turning while they wait.
class FakeNotificationService : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Notification
    {
        uint id = 0;
        QString summary;
        QString body;
        QStringList actions;
    };

    enum class Answer {
        WithId,
        WithError,
        Never,
    };

    explicit FakeNotificationService(const QDBusConnection &bus, QObject *parent = nullptr);
    ~FakeNotificationService() override;

    // Whether it owns the name and serves the object.
    bool isRegistered() const;

    // How the following Notify calls are answered.
    void setAnswer(Answer answer);
    QList<Notification> notifications() const;

    // The user clicked an action of notification id.
    void invokeAction(uint id, const QString &actionKey = QStringLiteral("default"));
    // The notification went away: 1 expired, 2 dismissed, 3 closed by a call.
    void close(uint id, uint reason);

public slots:
    uint Notify(const QString &appName, uint replacesId, const QString &appIcon, const QString &summary,
                const QString &body, const QStringList &actions, const QVariantMap &hints, int expireTimeout);

signals:
    void ActionInvoked(uint id, const QString &actionKey);
    void NotificationClosed(uint id, uint reason);

private:
    QDBusConnection _bus;
    bool _registered = false;
    Answer _answer = Answer::WithId;
    uint _lastId = 0;
    QList<Notification> _notifications;
};
