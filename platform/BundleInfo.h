#pragma once

#include <QString>
#include <QUrl>

// What the original platform keeps in a program's bundle: its identifier,
// executable name and version, and the information property list
// "Info.plist": beside the executable in a build tree, in the helper folder
// once installed.
class BundleInfo
{
public:
    static QString bundleIdentifier();
    // Tests run as the agent or as the companion by choosing this.
    static void setBundleIdentifier(const QString &identifier);
    static QString companionIdentifier();
    static QString executableName();
    static QString shortVersionString();

    static QString infoPath();
    // Tests supply an information file of their own; an empty path returns
    // to the program's own.
    static void setInfoPath(const QString &path);
    // "CFBundleVersion" from the information file, else the built-in version.
    static QString bundleVersion();
    // "SUFeedURL" from the information file; empty when it names none.
    static QUrl feedURL();
};
