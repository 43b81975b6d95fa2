#pragma once

#include "tests/support/QtPrinters.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

// A fresh folder tree in the temporary folder, or below base when given,
// with helpers that change it.
class WatchedFolder
{
public:
    explicit WatchedFolder(const QString &base = QString())
        : _dir((base.isEmpty() ? QDir::tempPath() : base) + "/korvane-events-XXXXXX")
    {}

    QString path() const { return _dir.path(); }
    QString filePath(const QString &relative) const { return _dir.filePath(relative); }
    QString makeFolder(const QString &relative) const
    {
        QDir().mkpath(filePath(relative));
        return filePath(relative);
    }
    QString writeFile(const QString &relative, const QByteArray &contents = "data\n") const
    {
        QDir().mkpath(QFileInfo(filePath(relative)).path());
        QFile file(filePath(relative));
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(contents);
        return filePath(relative);
    }

private:
    QTemporaryDir _dir;
};

// Waits for a condition with a generous deadline, spinning the event loop.
inline bool eventually(const std::function<bool()> &condition, int timeoutMs = 15000)
{
    return QTest::qWaitFor(condition, timeoutMs);
}
