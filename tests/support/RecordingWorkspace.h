#pragma once

#include "platform/Workspace.h"

#include <QStringList>
#include <QUrl>

// Opening files and addresses in other programs cannot run here: this keeps
// what it was asked to open and installs itself while it lives.
class RecordingWorkspace : public Workspace
{
public:
    RecordingWorkspace() { Workspace::setSharedWorkspace(this); }
    ~RecordingWorkspace() override { Workspace::setSharedWorkspace(nullptr); }
    bool launchAppWithBundleIdentifier(const QString &) override { return false; }
    bool isApplicationActive(const QString &) override { return false; }
    bool openFile(const QString &path) override
    {
        opened << path;
        return opens;
    }
    bool selectFile(const QString &) override { return false; }
    bool openURL(const QUrl &url) override
    {
        openedUrls << url;
        return true;
    }

    bool opens = true;
    QStringList opened;
    QList<QUrl> openedUrls;
};
