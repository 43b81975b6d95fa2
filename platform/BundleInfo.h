#pragma once

#include <QString>

// What the original platform keeps in a program's bundle: its identifier,
// executable name and version.
class BundleInfo
{
public:
    static QString bundleIdentifier();
    // Tests run as the agent or as the companion by choosing this.
    static void setBundleIdentifier(const QString &identifier);
    static QString companionIdentifier();
    static QString executableName();
    static QString shortVersionString();
};
