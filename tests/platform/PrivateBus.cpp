#include "PrivateBus.h"

#include <QFile>

namespace {

const char config[] = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:dir=%1</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

int connectionSerial = 0;

} // namespace

PrivateBus::PrivateBus()
{
    const QString configPath = _dir.filePath(QStringLiteral("system.conf"));
    QFile file(configPath);
    if (!file.open(QIODevice::WriteOnly) || file.write(QString::fromLatin1(config).arg(_dir.path()).toUtf8()) < 0)
        return;
    file.close();
    _daemon.setProcessChannelMode(QProcess::SeparateChannels);
    _daemon.start(QStringLiteral("dbus-daemon"), {QStringLiteral("--config-file=") + configPath,
                                                  QStringLiteral("--print-address"), QStringLiteral("--nofork")});
    if (!_daemon.waitForStarted(10000))
        return;
    while (!_daemon.canReadLine() && _daemon.waitForReadyRead(10000)) {}
    _address = QString::fromUtf8(_daemon.readLine()).trimmed();
}

PrivateBus::~PrivateBus()
{
    for (const QString &name : std::as_const(_connectionNames))
        QDBusConnection::disconnectFromBus(name);
    if (_daemon.state() != QProcess::NotRunning) {
        _daemon.terminate();
        if (!_daemon.waitForFinished(10000))
            _daemon.kill();
    }
}

bool PrivateBus::isRunning() const
{
    return _daemon.state() == QProcess::Running && !_address.isEmpty();
}

QString PrivateBus::address() const
{
    return _address;
}

QDBusConnection PrivateBus::connect()
{
    const QString name = QStringLiteral("private-bus-%1").arg(++connectionSerial);
    _connectionNames.append(name);
    return QDBusConnection::connectToBus(_address, name);
}
