#include "Dispatcher.h"

#include "DispatcherDelegate.h"

#include <QFile>

#include <sys/stat.h>

Dispatcher::Dispatcher(DispatcherDelegate *delegate, QObject *parent)
    : QObject(parent)
    , _delegate(delegate)
{
    _dispatchTimer.setInterval(1000);
    connect(&_dispatchTimer, &QTimer::timeout, this, &Dispatcher::updateSizesInWaitingList);
    _dispatchTimer.start();
}

quint64 Dispatcher::sizeOfItemAtPath(const QString &path)
{
    struct stat info;
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return 0;
    return quint64(info.st_size);
}

void Dispatcher::updateSizesInWaitingList()
{
    // Entries change during the pass, so walk a snapshot of the keys.
    const QStringList snapshot = _waitingList.keys();
    for (const QString &path : snapshot) {
        const quint64 size = sizeOfItemAtPath(path);
        if (size == _waitingList.value(path)) {
            _readyList.append(path);
            _waitingList.remove(path);
        } else {
            _waitingList.insert(path, size);
        }
    }
    if (!_readyList.isEmpty() && _delegate && _delegate->readyToScan())
        _delegate->startScan();
}

void Dispatcher::addToWaitingList(const QString &path)
{
    _waitingList.insert(path, sizeOfItemAtPath(path));
}

void Dispatcher::removeFromWaitingList(const QString &path)
{
    _waitingList.remove(path);
    _readyList.removeAll(path);
}

QStringList Dispatcher::grabItemsToScan()
{
    QStringList batch;
    batch.swap(_readyList);
    return batch;
}

void Dispatcher::removeAllItems()
{
    _waitingList.clear();
    _readyList.clear();
}
