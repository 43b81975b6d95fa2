#include "NautilusScript.h"

#include "platform/UserFolders.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

const QString scriptName = QStringLiteral("Scan with Korvane");

void setError(QString *error, const QString &text)
{
    if (error)
        *error = text;
}

} // namespace

QString NautilusScript::path()
{
    return UserFolders::dataHome() + QStringLiteral("/nautilus/scripts/") + scriptName;
}

QString NautilusScript::installedScript(const QString &korvaneProgram)
{
    return QDir::cleanPath(QFileInfo(korvaneProgram).absolutePath() + QStringLiteral("/../share/korvane/nautilus/")
                           + scriptName);
}

bool NautilusScript::isEnabled()
{
    return QFileInfo(path()).isSymLink();
}

bool NautilusScript::setEnabled(bool enabled, const QString &korvaneProgram, QString *error)
{
    const QString link = path();
    if (!enabled) {
        // Only our link is removed; a script the user wrote under the name stays.
        if (!isEnabled() || QFile::remove(link))
            return true;
        setError(error, QStringLiteral("could not remove %1").arg(link));
        return false;
    }
    const QString script = installedScript(korvaneProgram);
    if (!QFileInfo(script).isExecutable()) {
        setError(error, QStringLiteral("The script %1 is not installed.").arg(script));
        return false;
    }
    if (isEnabled() && !QFile::remove(link)) {
        setError(error, QStringLiteral("could not replace %1").arg(link));
        return false;
    }
    if (QFileInfo::exists(link)) {
        setError(error, QStringLiteral("%1 is a file of your own; Korvane leaves it alone.").arg(link));
        return false;
    }
    if (!QDir().mkpath(QFileInfo(link).absolutePath()) || !QFile::link(script, link)) {
        setError(error, QStringLiteral("could not create %1").arg(link));
        return false;
    }
    return true;
}
