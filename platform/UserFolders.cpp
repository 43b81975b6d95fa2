#include "UserFolders.h"

#include <QDir>

namespace {

QString fromEnvironment(const char *name, const QString &fallback)
{
    const QString value = qEnvironmentVariable(name);
    // Relative values are invalid by the XDG rules and are ignored.
    if (value.isEmpty() || !QDir::isAbsolutePath(value))
        return fallback;
    return value;
}

// The home folder to put before "/...": empty for a home of "/", so that
// no path begins with "//".
QString homePrefix()
{
    const QString home = QDir::homePath();
    return home == QLatin1String("/") ? QString() : home;
}

} // namespace

QString UserFolders::home()
{
    return QDir::homePath();
}

QString UserFolders::configHome()
{
    return fromEnvironment("XDG_CONFIG_HOME", home() + QStringLiteral("/.config"));
}

QString UserFolders::dataHome()
{
    return fromEnvironment("XDG_DATA_HOME", home() + QStringLiteral("/.local/share"));
}

QString UserFolders::logs()
{
    return fromEnvironment("XDG_STATE_HOME", home() + QStringLiteral("/.local/state")) + QStringLiteral("/korvane");
}

QString UserFolders::launchAgents()
{
    return configHome() + QStringLiteral("/autostart");
}

QStringList UserFolders::mailStores()
{
    const QString h = homePrefix();
    return {h + QStringLiteral("/.thunderbird"),
            h + QStringLiteral("/.local/share/evolution/mail"),
            h + QStringLiteral("/.local/share/local-mail"),
            h + QStringLiteral("/.local/share/geary"),
            h + QStringLiteral("/.claws-mail"),
            h + QStringLiteral("/Maildir")};
}

QString UserFolders::expandTilde(const QString &path)
{
    if (path == QLatin1String("~"))
        return home();
    if (path.startsWith(QLatin1String("~/")))
        return homePrefix() + path.mid(1);
    return path;
}
