#include "SystemctlUserServiceManager.h"

#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

bool SystemctlUserServiceManager::isRunning()
{
    // The manager listens on this socket for systemctl while it runs.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    return !runtime.isEmpty() && QFileInfo(runtime + QStringLiteral("/systemd/private")).exists()
           && !QStandardPaths::findExecutable(QStringLiteral("systemctl")).isEmpty();
}

bool SystemctlUserServiceManager::control(const QStringList &arguments, QString *error)
{
    QProcess systemctl;
    systemctl.setProcessChannelMode(QProcess::MergedChannels);
    systemctl.start(QStringLiteral("systemctl"), QStringList{QStringLiteral("--user")} + arguments);
    const bool finished = systemctl.waitForFinished(15000);
    if (!finished) {
        systemctl.kill();
        systemctl.waitForFinished(1000);
    }
    if (finished && systemctl.exitStatus() == QProcess::NormalExit && systemctl.exitCode() == 0)
        return true;
    if (error) {
        const QString said = QString::fromLocal8Bit(systemctl.readAll()).trimmed();
        *error = QStringLiteral("systemctl --user %1 failed: %2")
                     .arg(arguments.join(QLatin1Char(' ')),
                          said.isEmpty() ? (finished ? systemctl.errorString() : QStringLiteral("no answer in 15 s"))
                                         : said);
    }
    return false;
}
