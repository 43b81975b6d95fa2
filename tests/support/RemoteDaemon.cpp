#include "RemoteDaemon.h"

#include "EngineFixture.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QTcpServer>
#include <QCoreApplication>
#include <QTcpSocket>
#include <QThread>

namespace {

constexpr int startLimitMs = 60000;

bool writeFile(const QString &path, const QByteArray &contents)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(contents) == contents.size();
}

} // namespace

RemoteDaemon::RemoteDaemon()
    : _dir(QDir::tempPath() + QStringLiteral("/korvane-remote-XXXXXX"))
{
    if (!_dir.isValid()) {
        _error = QStringLiteral("no temporary folder: ") + _dir.errorString();
        return;
    }
    // The kernel hands out a port nobody listens on; the daemon takes it
    // over a moment later.
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0)) {
        _error = QStringLiteral("no free port: ") + probe.errorString();
        return;
    }
    _port = probe.serverPort();
    probe.close();

    const QString db = _dir.filePath(QStringLiteral("service/db"));
    QDir().mkpath(db);
    const QByteArray signatures =
        EngineFixture::eicarSignatureName().toLatin1() + ":0:*:" + EngineFixture::eicarContents().toHex() + '\n'
        + EngineFixture::markerSignatureName().toLatin1() + ":0:*:" + EngineFixture::markerContents().toHex() + '\n';
    const QString configuration = QStringLiteral("TCPAddr 127.0.0.1\nTCPSocket %1\nStreamMaxLength %2\n"
                                                 "DatabaseDirectory %3\nTemporaryDirectory %4\n"
                                                 "Foreground yes\nLogSyslog no\n")
                                      .arg(_port)
                                      .arg(streamMaxLength)
                                      .arg(db, _dir.path());
    if (!writeFile(db + QStringLiteral("/korvane.ndb"), signatures)
        || !writeFile(_dir.filePath(QStringLiteral("service/clamd.conf")), configuration.toUtf8())) {
        _error = QStringLiteral("could not write the service's configuration in ") + _dir.path();
        return;
    }
    if (layOutPrefix() && !start())
        _error = QStringLiteral("the scanning service did not start: ") + _error;
}

RemoteDaemon::~RemoteDaemon()
{
    stop();
}

RemoteDaemon &RemoteDaemon::shared()
{
    static RemoteDaemon service;
    // A child process must end before the application that watches it.
    [[maybe_unused]] static const bool stopsWithTheApplication = [] {
        qAddPostRoutine([] { service.stop(); });
        return true;
    }();
    return service;
}

QString RemoteDaemon::enginePath() const
{
    return _dir.filePath(QStringLiteral("desktop/engine"));
}

QString RemoteDaemon::address() const
{
    return QStringLiteral("127.0.0.1:%1").arg(_port);
}

bool RemoteDaemon::layOutPrefix()
{
    QProcess install;
    install.setProcessChannelMode(QProcess::MergedChannels);
    install.start(EngineFixture::installScriptPath(),
                  {QStringLiteral("--remote"), address(), QStringLiteral("--stream-max-length"),
                   QString::number(streamMaxLength), enginePath()});
    if (!install.waitForFinished(300000) || install.exitStatus() != QProcess::NormalExit || install.exitCode() != 0) {
        _error = QStringLiteral("install-engine --remote failed: ") + QString::fromLocal8Bit(install.readAll());
        return false;
    }
    return true;
}

bool RemoteDaemon::start()
{
    if (_daemon && _daemon->state() != QProcess::NotRunning)
        return answers();
    _daemon = std::make_unique<QProcess>();
    // Its output is only needed when it fails, and a pipe nobody reads fills.
    const QString output = _dir.filePath(QStringLiteral("service/clamd.out"));
    _daemon->setProcessChannelMode(QProcess::MergedChannels);
    _daemon->setStandardOutputFile(output, QIODevice::Append);
    _daemon->start(QStringLiteral("/usr/sbin/clamd"),
                   {QStringLiteral("--config-file=") + _dir.filePath(QStringLiteral("service/clamd.conf"))});
    if (!_daemon->waitForStarted(startLimitMs)) {
        _error = _daemon->errorString();
        return false;
    }
    QDeadlineTimer deadline(startLimitMs);
    while (!answers()) {
        if (_daemon->state() == QProcess::NotRunning || deadline.hasExpired()) {
            _daemon->kill();
            _daemon->waitForFinished(5000);
            QFile said(output);
            _error = said.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(said.readAll()) : output;
            return false;
        }
        QThread::msleep(20);
    }
    return true;
}

bool RemoteDaemon::stop()
{
    if (!_daemon || _daemon->state() == QProcess::NotRunning)
        return true;
    _daemon->terminate();
    if (!_daemon->waitForFinished(20000)) {
        _daemon->kill();
        _daemon->waitForFinished(5000);
    }
    return _daemon->state() == QProcess::NotRunning && !answers();
}

bool RemoteDaemon::answers() const
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, _port);
    if (!socket.waitForConnected(2000))
        return false;
    socket.write("zPING", 6);
    QByteArray reply;
    while (socket.waitForReadyRead(2000))
        reply += socket.readAll();
    return reply.startsWith("PONG");
}
