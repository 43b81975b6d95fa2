#pragma once

#include <QByteArray>
#include <QTcpServer>
#include <QUrl>

// An HTTP server on the loopback that answers every GET with one feed, an
// error status, or nothing at all, and counts the requests.
class FeedServer : public QTcpServer
{
public:
    FeedServer();

    QUrl url() const;
    // An appcast with one item per version.
    static QByteArray appcast(const QStringList &versions);

    QByteArray body;
    int status = 200;
    // Accepts connections but never answers them.
    bool silent = false;
    int requests = 0;
};
