#pragma once

#include "Workspace.h"

#include <QStringList>

// Launches programs through their desktop entries.
class DesktopEntryWorkspace : public Workspace
{
public:
    bool launchAppWithBundleIdentifier(const QString &identifier) override;
    bool isApplicationActive(const QString &identifier) override;
    bool openFile(const QString &path) override;
    // Through the file manager's org.freedesktop.FileManager1 service; where
    // none answers, the file's folder is opened instead.
    bool selectFile(const QString &path) override;
    bool openURL(const QUrl &url) override;

    // The program and arguments of a desktop entry's Exec line, with its
    // field codes dropped; empty when the entry cannot be used.
    static QStringList commandOfDesktopEntry(const QString &path);
};
