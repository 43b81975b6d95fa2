#include "LoginItem.h"

#include <algorithm>
#include "platform/UserFolders.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace {

// Desktop entries quote an Exec argument that holds blanks or quotes.
QString execArgument(const QString &program)
{
    static const QString special = QStringLiteral(" \t\"'\\><~|&;$*?#()`");
    if (std::none_of(program.begin(), program.end(), [](QChar c) { return special.contains(c); }))
        return program;
    QString quoted = program;
    quoted.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char('"'), QLatin1String("\\\""))
        .replace(QLatin1Char('`'), QLatin1String("\\`"))
        .replace(QLatin1Char('$'), QLatin1String("\\$"));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

} // namespace

QString LoginItem::path()
{
    return UserFolders::launchAgents() + QLatin1Char('/') + QStringLiteral(KORVANE_AGENT_ID)
           + QStringLiteral(".desktop");
}

bool LoginItem::isEnabled()
{
    return QFileInfo::exists(path());
}

QString LoginItem::entryText(const QString &agentProgram)
{
    QString exec = execArgument(agentProgram);
    // In an Exec value a literal percent sign is written twice.
    exec.replace(QLatin1Char('%'), QLatin1String("%%"));
    return QStringLiteral("[Desktop Entry]\n"
                          "Type=Application\n"
                          "Name=KorvaneVarden\n"
                          "Comment=Scans new and changed files in the folders you chose\n"
                          "Exec=%1\n"
                          "Icon=%2\n"
                          "Terminal=false\n"
                          "NoDisplay=true\n"
                          "X-GNOME-Autostart-enabled=true\n")
        .arg(exec, QStringLiteral(KORVANE_AGENT_ID));
}

bool LoginItem::setEnabled(bool enabled, const QString &agentProgram, QString *error)
{
    const QString file = path();
    if (!enabled) {
        if (!QFileInfo::exists(file) || QFile::remove(file))
            return true;
        if (error)
            *error = QStringLiteral("could not remove %1").arg(file);
        return false;
    }
    if (!QDir().mkpath(QFileInfo(file).absolutePath())) {
        if (error)
            *error = QStringLiteral("could not create %1").arg(QFileInfo(file).absolutePath());
        return false;
    }
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly) || out.write(entryText(agentProgram).toUtf8()) < 0 || !out.commit()) {
        if (error)
            *error = QStringLiteral("could not write %1: %2").arg(file, out.errorString());
        return false;
    }
    return true;
}
