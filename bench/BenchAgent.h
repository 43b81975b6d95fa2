#pragma once

#include "platform/SleepWakeNotifier.h"
#include "tests/support/AnsweringAlertPresenter.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/RecordingNotificationCenter.h"

#include <QHash>
#include <QObject>
#include <QStringList>

#include <memory>

class KorvaneVarden_AppDelegate;

// The whole agent in this process, as it is launched: a temporary home whose
// settings name one watched folder, the engine at enginePath, alerts answered
// and notifications kept rather than shown. Records when each path reaches
// the infected list.
class BenchAgent : public QObject
{
public:
    BenchAgent(const QString &enginePath, const QString &watchedFolder);
    ~BenchAgent() override;

    // Launches and waits until the agent watches and its trees are set up.
    bool start(QString *error);
    KorvaneVarden_AppDelegate *controller() const { return _agent.get(); }

    // BenchClock time of the list's rowsInserted for path; negative when not listed.
    double listedAt(const QString &path) const { return _listedAt.value(path, -1); }
    // When the last of paths was listed, counting into listed those that were; 0 for none.
    double lastListedAt(const QStringList &paths, qsizetype &listed) const;
    QStringList listedPaths() const { return _listedAt.keys(); }
    bool waitUntilListed(const QStringList &paths, int timeoutMs) const;
    // Nothing waiting, ready or being scanned.
    bool waitUntilIdle(int timeoutMs) const;
    bool quitRequested() const { return _quitRequested; }

private:
    void rowsInserted(int first, int last);

    const QString _enginePath;
    const QString _watchedFolder;
    FreshPreferences _home;
    AnsweringAlertPresenter _alerts;
    RecordingNotificationCenter _notifications;
    SleepWakeNotifier _sleep;
    std::unique_ptr<KorvaneVarden_AppDelegate> _agent;
    QHash<QString, double> _listedAt;
    bool _quitRequested = false;
};
