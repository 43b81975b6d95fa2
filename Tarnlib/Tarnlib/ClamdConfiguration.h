#pragma once

#include <QHash>
#include <QString>

// The options of a clamd.conf as the daemon and its client read them: one
// option per line, its name first and its value after a blank; comment and
// empty lines skipped; the last of a repeated option wins.
class ClamdConfiguration
{
public:
    ClamdConfiguration() = default;

    // A file that cannot be read gives a configuration without options.
    static ClamdConfiguration fromFile(const QString &path);
    static ClamdConfiguration fromText(const QString &text);

    bool contains(const QString &option) const { return _options.contains(option); }
    // A null string when the option is absent.
    QString value(const QString &option) const { return _options.value(option); }

    // The client reaches its daemon over TCP when the configuration names a
    // TCP port and no local socket, which the client would prefer.
    bool daemonIsRemote() const;
    // TCPAddr, or the client's own choice when it is absent.
    QString tcpAddress() const;
    // 0 when TCPSocket is absent or no port.
    quint16 tcpPort() const;
    // "host:port", "[address]:port" for an IPv6 address: how log lines name it.
    QString remoteDaemonName() const;

private:
    QHash<QString, QString> _options;
};
