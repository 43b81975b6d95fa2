#include "RegularFile.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Reads up to want bytes; a file that grows while it is read still stops there.
std::optional<QByteArray> readOpen(int fd, qint64 want, RegularFile::Status *status, QString *error)
{
    QByteArray data;
    qint64 total = 0;
    char buffer[65536];
    while (total < want) {
        const ssize_t got = ::read(fd, buffer, size_t(std::min<qint64>(want - total, qint64(sizeof buffer))));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            *status = RegularFile::Status::Unreadable;
            *error = QString::fromLocal8Bit(std::strerror(errno));
            return std::nullopt;
        }
        if (got == 0)
            break;
        data.append(buffer, qsizetype(got));
        total += got;
    }
    return data;
}

std::optional<QByteArray> readRegular(const QString &path, qint64 limit, bool refuseLarger, RegularFile::Status *status,
                                      QString *error)
{
    // O_NONBLOCK keeps a FIFO without a writer from holding the open.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int code = errno;
        *status = code == ENOENT  ? RegularFile::Status::Missing
                  : code == ELOOP ? RegularFile::Status::NotRegular
                                  : RegularFile::Status::Unreadable;
        *error =
            code == ELOOP ? QStringLiteral("a symbolic link, not a file") : QString::fromLocal8Bit(std::strerror(code));
        return std::nullopt;
    }
    struct stat info;
    std::optional<QByteArray> data;
    if (::fstat(fd, &info) != 0) {
        *status = RegularFile::Status::Unreadable;
        *error = QString::fromLocal8Bit(std::strerror(errno));
    } else if (!S_ISREG(info.st_mode)) {
        *status = RegularFile::Status::NotRegular;
        *error = QStringLiteral("not a regular file");
    } else if (refuseLarger && info.st_size > limit) {
        *status = RegularFile::Status::TooLarge;
        *error = QStringLiteral("larger than %1 bytes").arg(limit);
    } else {
        // One byte more than allowed tells a file that grew meanwhile.
        data = readOpen(fd, refuseLarger ? limit + 1 : limit, status, error);
        if (data && refuseLarger && data->size() > limit) {
            *status = RegularFile::Status::TooLarge;
            *error = QStringLiteral("larger than %1 bytes").arg(limit);
            data.reset();
        }
    }
    ::close(fd);
    return data;
}

} // namespace

std::optional<QByteArray> RegularFile::read(const QString &path, qint64 sizeLimit, Status *status, QString *error)
{
    Status result = Status::Ok;
    QString reason;
    std::optional<QByteArray> data = readRegular(path, sizeLimit, true, &result, &reason);
    if (status)
        *status = data ? Status::Ok : result;
    if (error && !data)
        *error = reason;
    return data;
}

std::optional<QByteArray> RegularFile::readStart(const QString &path, qint64 maxBytes)
{
    Status status = Status::Ok;
    QString error;
    return readRegular(path, maxBytes, false, &status, &error);
}
