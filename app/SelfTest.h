#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

// Shows now and then that the whole road works: the standard anti-virus
// test file, written into a folder of the agent's own that is watched like
// the user's, must pass the folder events, the dispatcher and the daemon,
// and be found, within the latency and three ticks. It never becomes a row,
// a notification or a line of the user's scan log.
class SelfTest : public QObject
{
    Q_OBJECT
public:
    enum Step { NotStarted, Written, EventSeen, Dispatched, Found };

    // busy: whether the engine is scanning something else, which holds the
    // test file back without anything being wrong.
    explicit SelfTest(std::function<bool()> busy, QObject *parent = nullptr);

    // $XDG_STATE_HOME/korvane/self-test, made when missing.
    static QString folder();
    static constexpr int intervalMs = 6 * 3600 * 1000;
    bool owns(const QString &path) const;
    Step reached() const { return _reached; }

    void start(int deadlineMs);
    void cancel();
    void eventSeen(const QString &path);
    void dispatched(const QString &path);
    void found(const QString &path);
    // The scan that held the test file ended.
    void scanEnded();

signals:
    void passed();
    // In plain words, the step that failed.
    void failed(const QString &reason);

private:
    void deadlinePassed();
    void fail(const QString &reason);

    std::function<bool()> _busy;
    QString _folder;
    QString _file;
    Step _reached = NotStarted;
    QTimer _deadline;
};
