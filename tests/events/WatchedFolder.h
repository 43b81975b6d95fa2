#pragma once

#include "tests/support/QtPrinters.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <functional>

// A fresh folder tree in the temporary folder, with helpers that change it.
class WatchedFolder
{
public:
    // In the temporary folder, or below base when given.
    explicit WatchedFolder(const QString &base = QString());

    QString path() const { return _dir.path(); }
    QString filePath(const QString &relative) const;
    QString makeFolder(const QString &relative) const;
    QString writeFile(const QString &relative, const QByteArray &contents = "data\n") const;

private:
    QTemporaryDir _dir;
};

// Waits for a condition with a generous deadline, spinning the event loop.
bool eventually(const std::function<bool()> &condition, int timeoutMs = 15000);
