#pragma once

#include <QObject>
#include <QString>

// One program of a kind per desktop session. The running one owns its
// identifier as a name on the session bus and takes org.freedesktop.Application
// Activate calls on the object path made from it; a later start finds the
// name taken, activates the running one and leaves.
class SessionInstance : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")
public:
    explicit SessionInstance(const QString &identifier, QObject *parent = nullptr);

    // False without a session bus, where nothing can be shared.
    bool isBusConnected() const;
    bool isRunningElsewhere() const;
    // Asks the running one to come forward; false when it did not answer.
    bool activateRunningInstance(QString *error) const;
    // Takes Activate calls from now on.
    bool listen();
    // Without queueing or replacing: false when another process holds the
    // name, also one that claimed it a moment before us.
    bool claimName();

public slots:
    Q_SCRIPTABLE void Activate(const QVariantMap &platformData);

signals:
    void activated();

private:
    QString _identifier;
    QString _objectPath;
};
