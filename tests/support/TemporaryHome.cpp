#include "TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

TemporaryHome::TemporaryHome()
{
    const QString home = _dir.path();
    qputenv("HOME", home.toUtf8());
    qputenv("XDG_CONFIG_HOME", (home + "/.config").toUtf8());
    qputenv("XDG_STATE_HOME", (home + "/.local/state").toUtf8());
    qputenv("XDG_DATA_HOME", (home + "/.local/share").toUtf8());
    QDir(home).mkpath(".config");
}

QString TemporaryHome::path() const
{
    return _dir.path();
}
QString TemporaryHome::configHome() const
{
    return _dir.path() + "/.config";
}
QString TemporaryHome::stateHome() const
{
    return _dir.path() + "/.local/state";
}
QString TemporaryHome::filePath(const QString &relative) const
{
    return _dir.path() + "/" + relative;
}

QString TemporaryHome::writeFile(const QString &relative, const QByteArray &contents) const
{
    const QString path = filePath(relative);
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return {};
    file.write(contents);
    return path;
}

QByteArray TemporaryHome::readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

int TemporaryHome::modeOf(const QString &path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
}
