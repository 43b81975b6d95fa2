#include "LogRotationTool.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryFile>

namespace {

constexpr QFileDevice::Permissions logMode = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup;

// Removes a stale file first and refuses to follow anything planted at the
// fixed name, since the temporary folder is shared.
bool writeFreshFile(const QString &path, const QByteArray &contents, QString *error)
{
    QFile::remove(path);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly, QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        *error = file.errorString();
        return false;
    }
    if (file.write(contents) != contents.size() || !file.flush()) {
        *error = file.errorString();
        return false;
    }
    return true;
}

QString firstLine(const QByteArray &output)
{
    return QString::fromLocal8Bit(output).trimmed().section(QLatin1Char('\n'), 0, 0);
}

} // namespace

LogRotationTool::LogRotationTool()
{
    const bool newsyslog = QFileInfo(QString(newsyslogPath)).isExecutable();
    _kind = newsyslog ? Kind::Newsyslog : Kind::Logrotate;
    _program = newsyslog ? QString(newsyslogPath) : QString(logrotatePath);
}

LogRotationTool::LogRotationTool(Kind kind, const QString &program)
    : _kind(kind)
    , _program(program)
{}

QString LogRotationTool::configurationPath()
{
    // Qt answers an empty path when TMPDIR names a missing folder.
    const QString folder = QDir::tempPath();
    return folder.isEmpty() ? QString() : folder + QStringLiteral("/scanlogrotate.conf");
}

QString LogRotationTool::newsyslogConfiguration(const QString &logPath, uint uid, uint gid, qint64 sizeLimitKB)
{
    return QStringLiteral("# logfilename [owner:group] mode count size when flags [/pid_file] [sig_num]\n")
           + QStringLiteral("%1\t%2:%3\t640\t3\t%4\t*\tCJN")
                 .arg(logPath, QString::number(uid), QString::number(gid), QString::number(sizeLimitKB));
}

QString LogRotationTool::logrotateConfiguration(const QString &logPath, uint uid, uint gid, qint64 sizeLimitKB)
{
    // "su" makes root rotate as the log's owner, and keeps logrotate from
    // refusing a log whose folder others may write to.
    return QStringLiteral("\"%1\" {\n"
                          "    size %2k\n"
                          "    rotate 3\n"
                          "    compress\n"
                          "    compresscmd /bin/bzip2\n"
                          "    uncompresscmd /bin/bunzip2\n"
                          "    compressext .bz2\n"
                          "    create 0640 %3 %4\n"
                          "    su %3 %4\n"
                          "    missingok\n"
                          "    nomail\n"
                          "}\n")
        .arg(logPath, QString::number(sizeLimitKB), QString::number(uid), QString::number(gid));
}

LogRotationTool::Result LogRotationTool::rotate(const QString &logPath, uint uid, uint gid, qint64 sizeLimitKB) const
{
    const QString configuration = configurationPath();
    const QString text = _kind == Kind::Newsyslog ? newsyslogConfiguration(logPath, uid, gid, sizeLimitKB)
                                                  : logrotateConfiguration(logPath, uid, gid, sizeLimitKB);
    Result result;
    QString error;
    if (configuration.isEmpty()) {
        result = {Outcome::ConfigurationUnwritable, QStringLiteral("no temporary folder for scanlogrotate.conf")};
    } else if (!writeFreshFile(configuration, text.toUtf8(), &error)) {
        result = {Outcome::ConfigurationUnwritable, QStringLiteral("cannot write %1: %2").arg(configuration, error)};
    } else if (_kind == Kind::Newsyslog) {
        result = run({QStringLiteral("-Cr"), QStringLiteral("-f"), configuration});
    } else {
        // A state file of its own, so that neither the system's state nor a
        // stale one of ours decides anything; size alone does.
        QTemporaryFile state(QDir::tempPath() + QStringLiteral("/scanlogrotate-XXXXXX.state"));
        if (!state.open()) {
            result = {Outcome::ConfigurationUnwritable,
                      QStringLiteral("cannot make a logrotate state file: %1").arg(state.errorString())};
        } else {
            state.close();
            result = run({QStringLiteral("-s"), state.fileName(), configuration});
            if (result.outcome == Outcome::Ran)
                completeLogrotate(logPath);
        }
    }
    if (!configuration.isEmpty())
        QFile::remove(configuration);
    return result;
}

LogRotationTool::Result LogRotationTool::run(const QStringList &arguments) const
{
    QProcess process;
    process.setProgram(_program);
    process.setArguments(arguments);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start();
    if (!process.waitForStarted()) {
        if (!QFileInfo::exists(_program))
            return {Outcome::ToolMissing, QStringLiteral("%1 is not installed").arg(_program)};
        return {Outcome::ToolFailed, QStringLiteral("%1 did not start: %2").arg(_program, process.errorString())};
    }
    if (!process.waitForFinished(toolTimeoutMs)) {
        process.kill();
        process.waitForFinished();
        return {Outcome::ToolFailed, QStringLiteral("%1 did not finish in time").arg(_program)};
    }
    if (process.exitStatus() != QProcess::NormalExit)
        return {Outcome::ToolFailed, QStringLiteral("%1 crashed").arg(_program)};
    if (process.exitCode() != 0) {
        QString detail = QStringLiteral("%1 exited with status %2").arg(_program).arg(process.exitCode());
        const QString message = firstLine(process.readAllStandardError());
        if (!message.isEmpty())
            detail += QStringLiteral(": ") + message;
        return {Outcome::ToolFailed, detail};
    }
    return {};
}

// What newsyslog does on its own and logrotate does not: start a missing
// log (the scanner only appends to one that exists) and give the newest
// archive mode 640 rather than the old log's mode.
void LogRotationTool::completeLogrotate(const QString &logPath) const
{
    if (!QFileInfo::exists(logPath)) {
        QFile log(logPath);
        if (log.open(QIODevice::WriteOnly | QIODevice::NewOnly, logMode))
            log.setPermissions(logMode);
    }
    const QString newestArchive = logPath + QStringLiteral(".1.bz2");
    if (QFileInfo::exists(newestArchive))
        QFile::setPermissions(newestArchive, logMode);
}
