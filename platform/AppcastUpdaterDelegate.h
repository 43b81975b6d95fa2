#pragma once

#include <QString>

class AppcastUpdater;

// One offer of an appcast feed.
struct AppcastItem
{
    QString title;
    // The version compared with the program's own ("CFBundleVersion").
    QString version;
    // The version shown to people, when the feed gives one.
    QString shortVersionString;
};

// Told the outcome of each check that got an answer; failed checks are the
// updater's own business.
class AppcastUpdaterDelegate
{
public:
    virtual ~AppcastUpdaterDelegate() = default;
    virtual void updaterDidFindValidUpdate(AppcastUpdater *updater, const AppcastItem &update) = 0;
    virtual void updaterDidNotFindUpdate(AppcastUpdater *updater) = 0;
};
