#pragma once

#include <QObject>
#include <QUrl>

class QNetworkAccessManager;

// Fetches one feed at a time on the thread it lives on, so that a slow or
// silent server never holds the main thread.
class AppcastFetcher : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

public slots:
    void fetch(const QUrl &url, int timeoutMs);

signals:
    // Either the body or, when the fetch failed, a reason.
    void fetched(const QByteArray &body, const QString &error);

private:
    QNetworkAccessManager *_network = nullptr;
};
