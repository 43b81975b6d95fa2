#pragma once

#include <QString>

// The operating system's version property list. Linux has none at the
// original place, so its version-specific roads stay off unless a test
// supplies a file.
class SystemVersion
{
public:
    static QString path();
    static void setPath(const QString &path);
    // The "ProductVersion" entry, or an empty string.
    static QString productVersion();
};
