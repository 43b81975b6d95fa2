#pragma once

#include "AppcastUpdaterDelegate.h"

#include <QObject>
#include <QThread>
#include <QUrl>

#include <optional>

class AppcastFetcher;

// Checks an appcast feed (RSS items whose enclosures carry a version) for a
// version above the program's own. It only tells its delegate; it never
// downloads or installs anything. The feed is fetched on a thread of its
// own; the delegate is told on the thread the updater lives on.
class AppcastUpdater : public QObject
{
    Q_OBJECT
public:
    static constexpr int defaultTimeoutMs = 30000;

    AppcastUpdater(const QUrl &feedURL, const QString &currentVersion, QObject *parent = nullptr);
    ~AppcastUpdater() override;

    // The updater for the agent's own information file.
    static AppcastUpdater *updaterForBundle(QObject *parent);

    AppcastUpdaterDelegate *delegate() const { return _delegate; }
    void setDelegate(AppcastUpdaterDelegate *delegate) { _delegate = delegate; }
    QUrl feedURL() const { return _feedURL; }
    QString currentVersion() const { return _currentVersion; }
    int transferTimeout() const { return _timeoutMs; }
    void setTransferTimeout(int ms) { _timeoutMs = ms; }
    bool isChecking() const { return _checking; }

    // Starts one check without showing anything; one that is still running
    // makes this do nothing. A failure is logged once until a check works.
    void checkForUpdateInformation();

    // The order appcasts use: numeric parts as numbers, other text as text;
    // a number is newer than text at the same place ("1.0" > "1.0b"), and a
    // further numeric part makes a version newer ("1.0.1" > "1.0") while
    // further text makes it older ("1.0" > "1.0b2"). Answers -1, 0 or 1.
    static int compareVersions(const QString &a, const QString &b);
    // The newest item of a feed; nothing when it offers no version, and an
    // error when it is not an appcast.
    static std::optional<AppcastItem> newestItem(const QByteArray &feed, QString *error);

signals:
    void fetchRequested(const QUrl &url, int timeoutMs);

private:
    void fetched(const QByteArray &body, const QString &error);
    void failed(const QString &reason);

    QUrl _feedURL;
    QString _currentVersion;
    AppcastUpdaterDelegate *_delegate = nullptr;
    int _timeoutMs = defaultTimeoutMs;
    bool _checking = false;
    bool _failing = false;
    QThread _thread;
    AppcastFetcher *_fetcher;
};
