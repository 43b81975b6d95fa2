#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <memory>

// A scanning service for tests: a second daemon with our signatures,
// listening only on 127.0.0.1 at a port free when it was made, and an engine
// prefix laid out by install-engine --remote that reaches it over TCP alone.
// It runs in the foreground as the test's child, so a test can stop it and
// start it again on the same port.
class RemoteDaemon
{
public:
    // The stream limit of both the daemon and the prefix, small so that a
    // file over it is quick to write.
    static constexpr qint64 streamMaxLength = 1024 * 1024;

    RemoteDaemon();
    ~RemoteDaemon();
    RemoteDaemon(const RemoteDaemon &) = delete;
    RemoteDaemon &operator=(const RemoteDaemon &) = delete;

    // One per test binary, made on first use.
    static RemoteDaemon &shared();

    bool isReady() const { return _error.isEmpty(); }
    QString errorString() const { return _error; }
    QString enginePath() const;
    quint16 port() const { return _port; }
    QString address() const;

    // Both answer once the daemon is in the state asked for.
    bool start();
    bool stop();
    bool answers() const;

private:
    bool layOutPrefix();

    QTemporaryDir _dir;
    quint16 _port = 0;
    std::unique_ptr<QProcess> _daemon;
    QString _error;
};
