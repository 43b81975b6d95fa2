#pragma once

#include <QString>

// Moves inside one file system by rename(2), never by copying, and never over
// something that is already at the target.
class FileMove
{
public:
    // Answers 0 when moved, else the errno of the failure (EEXIST when the
    // target is taken, EXDEV when it is on another file system).
    static int moveWithoutReplacing(const QString &from, const QString &to);
    // Whether anything, a dangling link included, is at the path.
    static bool exists(const QString &path);
    // The permission bits of a regular file, or -1 for anything else.
    static int regularFileMode(const QString &path);
    static bool setMode(const QString &path, int mode);
    static QString errorText(int errorNumber);
};
