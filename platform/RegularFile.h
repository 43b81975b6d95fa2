#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// Reads files that someone else may have placed: only a regular file is
// opened, never through a final symbolic link, and never more than a given
// number of bytes, so that a FIFO, a device or an endless file cannot block
// or exhaust the reader.
class RegularFile
{
public:
    enum class Status { Ok, Missing, NotRegular, TooLarge, Unreadable };

    // The whole file, or none with *status and *error saying why; a file of
    // more than sizeLimit bytes is refused as TooLarge.
    static std::optional<QByteArray> read(const QString &path, qint64 sizeLimit, Status *status = nullptr,
                                          QString *error = nullptr);
    // At most the first maxBytes bytes.
    static std::optional<QByteArray> readStart(const QString &path, qint64 maxBytes);
};
