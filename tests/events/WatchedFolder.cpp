#include "WatchedFolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

WatchedFolder::WatchedFolder(const QString &base)
    : _dir((base.isEmpty() ? QDir::tempPath() : base) + QStringLiteral("/korvane-events-XXXXXX"))
{
}

QString WatchedFolder::filePath(const QString &relative) const
{
    return _dir.filePath(relative);
}

QString WatchedFolder::makeFolder(const QString &relative) const
{
    const QString path = filePath(relative);
    QDir().mkpath(path);
    return path;
}

QString WatchedFolder::writeFile(const QString &relative, const QByteArray &contents) const
{
    const QString path = filePath(relative);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(contents);
    return path;
}

bool eventually(const std::function<bool()> &condition, int timeoutMs)
{
    return QTest::qWaitFor(condition, timeoutMs);
}
