#include "tests/support/ScriptedPrefix.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <gtest/gtest.h>

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
    const QString path = writeFile(relative, "#!/bin/sh\n" + body);
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

QByteArray ScriptedPrefix::readFile(const QString &relative) const
{
    QFile file(filePath(relative));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
