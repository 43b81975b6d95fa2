#pragma once

#include <QHash>
#include <QObject>
#include <QStringList>
#include <QTimer>

class DispatcherDelegate;

// Holds changed paths until their size stops changing from one tick to the
// next, then offers them to the delegate as one batch.
class Dispatcher : public QObject
{
    Q_OBJECT
public:
    // The one-second tick starts at once on the creating thread.
    explicit Dispatcher(DispatcherDelegate *delegate, QObject *parent = nullptr);

    DispatcherDelegate *delegate() const { return _delegate; }
    void setDelegate(DispatcherDelegate *delegate) { _delegate = delegate; }
    QTimer *dispatchTimer() { return &_dispatchTimer; }
    QHash<QString, quint64> waitingList() const { return _waitingList; }
    void setWaitingList(const QHash<QString, quint64> &list) { _waitingList = list; }
    QStringList readyList() const { return _readyList; }
    void setReadyList(const QStringList &list) { _readyList = list; }

    void updateSizesInWaitingList();
    void addToWaitingList(const QString &path);
    void removeFromWaitingList(const QString &path);
    QStringList grabItemsToScan();
    void removeAllItems();

    // The size of the item itself (a final symbolic link is not followed);
    // 0 when it cannot be read.
    static quint64 sizeOfItemAtPath(const QString &path);

private:
    DispatcherDelegate *_delegate;
    QTimer _dispatchTimer;
    QHash<QString, quint64> _waitingList;
    QStringList _readyList;
};
