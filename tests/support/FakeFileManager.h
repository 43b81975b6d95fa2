#pragma once

#include <QDBusConnection>
#include <QList>
#include <QObject>
#include <QStringList>

// A file manager for tests: owns org.freedesktop.FileManager1 on the
// connection it is given and records every ShowItems. Give it a connection
// of its own so the bus sees it as a peer apart from the program under test;
// it answers on its object's thread, so tests keep the event loop turning.
class FakeFileManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")
public:
    struct Call
    {
        QStringList uris;
        QString startupId;
    };

    explicit FakeFileManager(const QDBusConnection &bus, QObject *parent = nullptr);
    ~FakeFileManager() override;

    bool isRegistered() const { return _registered; }
    QList<Call> calls() const { return _calls; }

public slots:
    void ShowItems(const QStringList &uris, const QString &startupId);

private:
    QDBusConnection _bus;
    bool _registered = false;
    QList<Call> _calls;
};
