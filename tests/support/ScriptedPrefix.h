#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// An engine prefix in a temporary folder whose programs are small shell
// scripts written by the test, standing in for what an engine printed.
class ScriptedPrefix
{
public:
    QString path() const { return _dir.path(); }
    QString filePath(const QString &relative) const { return _dir.path() + '/' + relative; }
    // Writes a file, making its folders, and answers its path.
    QString writeFile(const QString &relative, const QByteArray &contents) const;
    // As writeFile, for a /bin/sh script made executable.
    QString writeScript(const QString &relative, const QByteArray &body) const;
    QByteArray readFile(const QString &relative) const;

private:
    QTemporaryDir _dir;
};
