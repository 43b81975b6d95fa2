#include "PkexecPrivilegedExecution.h"

#include <QProcess>

PrivilegedExecution::Result PkexecPrivilegedExecution::runWithPrivileges(const QString &program)
{
    QProcess pkexec;
    pkexec.setProgram(QString::fromLatin1(pkexecPath));
    pkexec.setArguments({program});
    pkexec.setProcessChannelMode(QProcess::ForwardedChannels);
    pkexec.start();
    if (!pkexec.waitForStarted())
        return {};
    // The user may take a while over the password.
    pkexec.waitForFinished(-1);
    if (pkexec.exitStatus() != QProcess::NormalExit)
        return {true, -1};
    return {true, pkexec.exitCode()};
}
