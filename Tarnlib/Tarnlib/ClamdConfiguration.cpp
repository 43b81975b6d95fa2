#include "ClamdConfiguration.h"

#include <QFile>
#include <QRegularExpression>

ClamdConfiguration ClamdConfiguration::fromFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return fromText(QString::fromUtf8(file.readAll()));
}

ClamdConfiguration ClamdConfiguration::fromText(const QString &text)
{
    static const QRegularExpression blank(QStringLiteral("\\s"));
    ClamdConfiguration configuration;
    for (const QString &raw : text.split(u'\n')) {
        const QString line = raw.trimmed();
        if (line.isEmpty() || line.startsWith(u'#'))
            continue;
        const qsizetype end = line.indexOf(blank);
        const QString option = end < 0 ? line : line.left(end);
        configuration._options.insert(option, end < 0 ? QStringLiteral("") : line.mid(end).trimmed());
    }
    return configuration;
}

bool ClamdConfiguration::daemonIsRemote() const
{
    return tcpPort() != 0 && !contains(QStringLiteral("LocalSocket"));
}

QString ClamdConfiguration::tcpAddress() const
{
    const QString address = value(QStringLiteral("TCPAddr"));
    return address.isEmpty() ? QStringLiteral("localhost") : address;
}

quint16 ClamdConfiguration::tcpPort() const
{
    bool ok = false;
    const uint port = value(QStringLiteral("TCPSocket")).toUInt(&ok);
    return ok && port <= 65535 ? quint16(port) : 0;
}

QString ClamdConfiguration::remoteDaemonName() const
{
    const QString address = tcpAddress();
    const QString host = address.contains(u':') ? u'[' + address + u']' : address;
    return host + u':' + QString::number(tcpPort());
}
