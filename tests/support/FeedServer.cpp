#include "FeedServer.h"

#include <QTcpSocket>

FeedServer::FeedServer()
{
    listen(QHostAddress::LocalHost);
    connect(this, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = nextPendingConnection()) {
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                socket->setProperty("request", socket->property("request").toByteArray() + socket->readAll());
                if (!socket->property("request").toByteArray().contains("\r\n\r\n")
                    || socket->property("answered").toBool())
                    return;
                socket->setProperty("answered", true);
                ++requests;
                if (silent)
                    return;
                socket->write("HTTP/1.1 " + QByteArray::number(status)
                              + " Feed\r\nContent-Type: application/rss+xml\r\n"
                                "Content-Length: "
                              + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
                socket->disconnectFromHost();
            });
        }
    });
}

QUrl FeedServer::url() const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1/appcast.xml").arg(serverPort()));
}

QByteArray FeedServer::appcast(const QStringList &versions)
{
    QByteArray items;
    for (const QString &version : versions)
        items += "<item><title>Korvane " + version.toUtf8()
                 + "</title>"
                   "<enclosure url=\"https://korvane.org/Korvane-"
                 + version.toUtf8()
                 + ".tar.xz\" "
                   "sparkle:version=\""
                 + version.toUtf8() + "\" sparkle:shortVersionString=\"" + version.toUtf8()
                 + "\" "
                   "length=\"1\" type=\"application/octet-stream\"/></item>";
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
           "<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
           "<channel><title>Korvane</title>"
           + items + "</channel></rss>\n";
}
