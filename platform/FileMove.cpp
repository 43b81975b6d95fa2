#include "FileMove.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>

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

namespace {

// Closes on every way out.
struct Descriptor
{
    int fd = -1;
    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }
};

int writeAll(int fd, const char *data, ssize_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size_t(size));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n < 0 ? errno : ENOSPC;
        data += n;
        size -= n;
    }
    return 0;
}

// Reads the whole file from its start; into is written to when given.
int readAll(int fd, QCryptographicHash *hash, qint64 *size, int into = -1)
{
    if (::lseek(fd, 0, SEEK_SET) != 0)
        return errno;
    *size = 0;
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno;
        if (n == 0)
            return 0;
        hash->addData(QByteArrayView(buffer, n));
        *size += n;
        if (into >= 0) {
            if (const int error = writeAll(into, buffer, n))
                return error;
        }
    }
}

int syncFolderOf(const QByteArray &path)
{
    const QByteArray folder = QFile::encodeName(QFileInfo(QFile::decodeName(path)).path());
    Descriptor dir{::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    return dir.fd >= 0 && ::fsync(dir.fd) == 0 ? 0 : errno;
}

} // namespace

int FileMove::moveOrCopyWithoutReplacing(const QString &from, const QString &to)
{
    const int error = moveWithoutReplacing(from, to);
    return error == EXDEV ? moveByCopying(from, to) : error;
}

int FileMove::moveByCopying(const QString &from, const QString &to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    Descriptor in{::open(source.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)};
    if (in.fd < 0)
        return errno;
    struct stat info;
    if (::fstat(in.fd, &info) != 0)
        return errno;
    // A folder cannot be checked as one piece; it stays where it is.
    if (!S_ISREG(info.st_mode))
        return EXDEV;
    if (exists(to))
        return EEXIST;

    QByteArray partial = QFile::encodeName(QFileInfo(to).path()) + "/.korvane-partial-XXXXXX";
    Descriptor out{::mkostemp(partial.data(), O_CLOEXEC)};
    if (out.fd < 0)
        return errno;
    const auto fail = [&](int error) {
        ::unlink(partial.constData());
        return error;
    };
    QCryptographicHash copied(QCryptographicHash::Sha256);
    qint64 copiedSize = 0;
    if (const int error = readAll(in.fd, &copied, &copiedSize, out.fd))
        return fail(error);
    const struct timespec times[2] = {info.st_atim, info.st_mtim};
    if (::fchmod(out.fd, info.st_mode & 07777) != 0 || ::futimens(out.fd, times) != 0 || ::fsync(out.fd) != 0)
        return fail(errno);

    // What reached the disk and what is still at the source must both be
    // what was copied: a file that changed meanwhile is not moved.
    QCryptographicHash onDisk(QCryptographicHash::Sha256);
    QCryptographicHash original(QCryptographicHash::Sha256);
    qint64 onDiskSize = 0;
    qint64 originalSize = 0;
    if (const int error = readAll(out.fd, &onDisk, &onDiskSize))
        return fail(error);
    if (const int error = readAll(in.fd, &original, &originalSize))
        return fail(error);
    if (onDiskSize != copiedSize || originalSize != copiedSize || onDisk.result() != copied.result()
        || original.result() != copied.result())
        return fail(EIO);

    if (const int error = moveWithoutReplacing(QFile::decodeName(partial), to))
        return fail(error);
    if (const int error = syncFolderOf(target)) {
        ::unlink(target.constData());
        return error;
    }
    if (::unlink(source.constData()) != 0) {
        const int error = errno;
        ::unlink(target.constData());
        return error;
    }
    syncFolderOf(source);
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

QString FileMove::sha256(const QString &path, qint64 *size)
{
    if (regularFileMode(path) < 0)
        return {};
    Descriptor file{::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (file.fd < 0 || readAll(file.fd, &hash, size) != 0)
        return {};
    return QString::fromLatin1(hash.result().toHex());
}

int FileMove::appendDurably(const QString &path, const QByteArray &data)
{
    const QByteArray name = QFile::encodeName(path);
    Descriptor file{::open(name.constData(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)};
    if (file.fd < 0)
        return errno;
    if (const int error = writeAll(file.fd, data.constData(), data.size()))
        return error;
    if (::fsync(file.fd) != 0)
        return errno;
    // A journal that is new must itself survive a power cut.
    return syncFolderOf(name);
}

int FileMove::makePrivateFolder(const QString &path)
{
    if (::mkdir(QFile::encodeName(path).constData(), 0700) == 0 || errno == EEXIST)
        return 0;
    return errno;
}
