#include "AppcastFetcher.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

namespace {
// A feed is a few kilobytes; anything far larger is not one.
constexpr qint64 largestFeed = 4 * 1024 * 1024;
} // namespace

void AppcastFetcher::fetch(const QUrl &url, int timeoutMs)
{
    if (!_network)
        _network = new QNetworkAccessManager(this);
    QNetworkRequest request(url);
    request.setTransferTimeout(timeoutMs);
    QNetworkReply *reply = _network->get(request);
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
        if (received > largestFeed) {
            reply->setProperty("tooLarge", true);
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply, timeoutMs] {
        reply->deleteLater();
        if (reply->error() == QNetworkReply::OperationCanceledError) {
            const bool tooLarge = reply->property("tooLarge").toBool();
            emit fetched({}, tooLarge ? QStringLiteral("the feed is larger than %1 bytes").arg(largestFeed)
                                      : QStringLiteral("no answer within %1 ms").arg(timeoutMs));
        } else if (const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
                   status.isValid() && status.toInt() != 200) {
            emit fetched({}, QStringLiteral("HTTP status %1").arg(status.toInt()));
        } else if (reply->error() != QNetworkReply::NoError) {
            emit fetched({}, reply->errorString());
        } else {
            emit fetched(reply->readAll(), QString());
        }
    });
}
