#pragma once

#include "QtPrinters.h"
#include "RestoredVariable.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// A home folder of its own for one test: HOME and the XDG folders point into
// a fresh temporary folder and are restored afterwards.
class TemporaryHome
{
public:
    TemporaryHome();

    QString path() const;
    QString configHome() const;
    QString stateHome() const;
    QString filePath(const QString &relative) const;
    // Writes a file (making its folders) and answers its absolute path.
    QString writeFile(const QString &relative, const QByteArray &contents) const;

    // Any file's contents (empty when it cannot be read) and permission bits (-1 when missing).
    static QByteArray readFile(const QString &path);
    static int modeOf(const QString &path);

private:
    RestoredVariable _saved[4]{RestoredVariable("HOME"), RestoredVariable("XDG_CONFIG_HOME"),
                               RestoredVariable("XDG_STATE_HOME"), RestoredVariable("XDG_DATA_HOME")};
    QTemporaryDir _dir;
};
