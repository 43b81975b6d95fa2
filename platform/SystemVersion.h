#pragma once

#include <QString>

// The operating system's version property list. Linux has none at the
// original place, so its version-specific roads stay off.
class SystemVersion
{
public:
    // The "ProductVersion" entry, or an empty string.
    static QString productVersion();
};
