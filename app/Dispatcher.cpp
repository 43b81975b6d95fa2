#include "Dispatcher.h"

#include "DispatcherDelegate.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

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

namespace {

// A FIFO, socket or device (or a link to one) is no file to scan, and opening
// one may block or never end.
bool isSpecial(const QString &path)
{
    // stat follows a link to what it names; a vanished item is no special one.
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return false;
    return S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode) || S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode);
}

} // namespace

void Dispatcher::updateSizesInWaitingList()
{
    // Entries change during the pass, so walk a snapshot of the keys.
    const QStringList snapshot = _waitingList.keys();
    for (const QString &path : snapshot) {
        const quint64 size = sizeOfItemAtPath(path);
        if (size == _waitingList.value(path)) {
            if (!isSpecial(path))
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
    QStringList ready;
    ready.swap(_readyList);

    // The engine scans a folder whole, so what lies under a folder of the
    // same batch would be scanned, and reported, once more.
    QSet<QString> folders;
    for (const QString &path : std::as_const(ready)) {
        struct stat info;
        if (::lstat(QFile::encodeName(path).constData(), &info) == 0 && S_ISDIR(info.st_mode))
            folders.insert(QDir::cleanPath(path));
    }
    if (folders.isEmpty())
        return ready;
    const auto underFolder = [&folders](const QString &path) {
        for (QString parent = QFileInfo(QDir::cleanPath(path)).path(); parent.size() > 1;
             parent = QFileInfo(parent).path()) {
            if (folders.contains(parent))
                return true;
        }
        return folders.contains(QStringLiteral("/")) && path != QLatin1String("/");
    };
    QStringList batch;
    for (const QString &path : std::as_const(ready)) {
        if (!underFolder(path))
            batch.append(path);
    }
    return batch;
}

void Dispatcher::removeAllItems()
{
    _waitingList.clear();
    _readyList.clear();
}
