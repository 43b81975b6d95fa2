#include "FileMove.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

int FileMove::moveWithoutReplacing(const QString &from, const QString &to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    // File systems without RENAME_NOREPLACE: a hard link refuses a taken name
    // just the same, for everything but folders.
    struct stat info;
    if (::lstat(source.constData(), &info) != 0)
        return errno;
    if (S_ISDIR(info.st_mode))
        return EINVAL;
    if (::link(source.constData(), target.constData()) != 0)
        return errno;
    if (::unlink(source.constData()) != 0) {
        const int error = errno;
        ::unlink(target.constData());
        return error;
    }
    return 0;
}

bool FileMove::exists(const QString &path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0;
}

int FileMove::regularFileMode(const QString &path)
{
    struct stat info;
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return -1;
    return int(info.st_mode & 07777);
}

bool FileMove::setMode(const QString &path, int mode)
{
    return ::chmod(QFile::encodeName(path).constData(), mode_t(mode)) == 0;
}

QString FileMove::errorText(int errorNumber)
{
    return QString::fromLocal8Bit(std::strerror(errorNumber));
}
