#include "tests/support/ScriptedPrefix.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <gtest/gtest.h>

#include <cstdio>

QString ScriptedPrefix::writeFile(const QString &relative, const QByteArray &contents) const
{
    const QString path = filePath(relative);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(contents);
    return path;
}

QString ScriptedPrefix::writeScript(const QString &relative, const QByteArray &body) const
{
    // Made beside it and moved into place: a script that an earlier agent is
    // still starting cannot be opened for writing (ETXTBSY).
    const QString path = filePath(relative);
    const QString fresh = writeFile(relative + ".new", "#!/bin/sh\n" + body);
    QFile::setPermissions(fresh, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    EXPECT_EQ(::rename(QFile::encodeName(fresh).constData(), QFile::encodeName(path).constData()), 0)
        << path.toStdString();
    return path;
}

QByteArray ScriptedPrefix::readFile(const QString &relative) const
{
    QFile file(filePath(relative));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
