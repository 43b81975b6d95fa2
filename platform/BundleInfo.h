#pragma once

#include <QFileInfo>
#include <QString>
#include <QUrl>

#include <functional>

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

    // A file that ships beside the program in a build tree and in the helper
    // folder once installed: the one beside it when that is usable or the
    // installed one is not.
    static QString helperFilePath(const QString &name, const std::function<bool(const QFileInfo &)> &usable);
    static QString infoPath();
    // Tests supply an information file of their own; an empty path returns
    // to the program's own.
    static void setInfoPath(const QString &path);
    // "CFBundleVersion" from the information file, else the built-in version.
    static QString bundleVersion();
    // "SUFeedURL" from the information file; empty when it names none.
    static QUrl feedURL();
};
