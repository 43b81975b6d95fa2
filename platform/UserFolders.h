#pragma once

#include <QString>
#include <QStringList>

// The user's folders on a Linux desktop, read from the environment at each
// call so that a changed HOME or XDG variable is honoured.
class UserFolders
{
public:
    static QString home();
    // $XDG_STATE_HOME/korvane: where the scan logs live.
    static QString logs();
    // $XDG_CONFIG_HOME/autostart: where login items live.
    static QString launchAgents();
    static QString configHome();
    static QString dataHome();
    // The local mail stores of the common mail programs.
    static QStringList mailStores();
    // "~" or "~/..." becomes the home folder; other paths are unchanged.
    static QString expandTilde(const QString &path);
};
