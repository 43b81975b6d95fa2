#pragma once

#include <QString>

// Moves that never put anything over something already at the target.
class FileMove
{
public:
    // Answers 0 when moved, else the errno of the failure (EEXIST when the
    // target is taken, EXDEV when it is on another file system).
    static int moveWithoutReplacing(const QString &from, const QString &to);
    // The same, but a regular file bound for another file system is copied
    // to a temporary name beside the target, flushed to disk, checked
    // against the original by size and SHA-256, renamed into place and only
    // then removed at its source. Whatever fails, the original stays and no
    // copy is left.
    static int moveOrCopyWithoutReplacing(const QString &from, const QString &to);
    static int moveByCopying(const QString &from, const QString &to);
    // Whether anything, a dangling link included, is at the path.
    static bool exists(const QString &path);
    // The permission bits of a regular file, or -1 for anything else.
    static int regularFileMode(const QString &path);
    static bool setMode(const QString &path, int mode);
    static QString errorText(int errorNumber);
    // The SHA-256 of a regular file's contents in hex, and its size; empty
    // when it cannot be read.
    static QString sha256(const QString &path, qint64 *size);
    // Appends to a file of the user's own (created 0600) and waits until the
    // bytes are on the disk; answers 0 or the errno of the failure.
    // Makes the last folder of the path, for the owner alone, when it is
    // missing and its parent exists; answers 0 or the errno of the failure.
    static int makePrivateFolder(const QString &path);
    static int appendDurably(const QString &path, const QByteArray &data);
};
