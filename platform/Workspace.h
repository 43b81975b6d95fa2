#pragma once

#include <QString>

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
};
