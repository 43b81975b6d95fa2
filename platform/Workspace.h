#pragma once

#include <QString>
#include <QUrl>

// Starting other desktop programs and opening files.
class Workspace
{
public:
    virtual ~Workspace() = default;

    static Workspace *sharedWorkspace();
    // Tests install their own; nullptr returns to the real one.
    static void setSharedWorkspace(Workspace *workspace);

    // Starts the program of the desktop entry "<identifier>.desktop" found in
    // the XDG data folders, without waiting for it. Answers whether it could
    // be started.
    virtual bool launchAppWithBundleIdentifier(const QString &identifier) = 0;
    // "Active" on this desktop: the program owns its D-Bus name.
    virtual bool isApplicationActive(const QString &identifier) = 0;
    // Hands a file or folder to the desktop's default program for it.
    virtual bool openFile(const QString &path) = 0;
    // Shows the file selected in a file viewer window of its own. Answers
    // whether it could be handed on; the viewer may come up later.
    virtual bool selectFile(const QString &path) = 0;
    // Hands a URL to the desktop's handler for its scheme. Answers whether
    // a handler took it.
    virtual bool openURL(const QUrl &url) = 0;

    // A folder that the desktop shows as one file: an application or
    // document bundle, named with one of the package extensions.
    static bool isFilePackageAtPath(const QString &path);
};
