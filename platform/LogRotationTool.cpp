#include "LogRotationTool.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

namespace {

constexpr QFileDevice::Permissions logMode = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup;

bool writeFile(const QString &path, const QByteArray &contents, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly, QFileDevice::ReadOwner | QFileDevice::WriteOwner)
        || file.write(contents) != contents.size() || !file.flush()) {
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
    const QString text = _kind == Kind::Newsyslog ? newsyslogConfiguration(logPath, uid, gid, sizeLimitKB)
                                                  : logrotateConfiguration(logPath, uid, gid, sizeLimitKB);
    // The temporary folder is shared: a fixed name there could be taken by
    // another user, or by one of our own agents killed mid-rotation. A
    // folder of our own (mode 700) is ours alone and goes afterwards.
    const QString base = QDir::tempPath();
    QTemporaryDir folder(base + QStringLiteral("/scanlogrotate-XXXXXX"));
    if (base.isEmpty() || !folder.isValid())
        return {Outcome::ConfigurationUnwritable,
                QStringLiteral("no private folder in %1 for scanlogrotate.conf: %2")
                    .arg(base.isEmpty() ? QStringLiteral("the temporary folder") : base, folder.errorString())};
    const QString configuration = folder.filePath(QStringLiteral("scanlogrotate.conf"));
    QString error;
    if (!writeFile(configuration, text.toUtf8(), &error))
        return {Outcome::ConfigurationUnwritable, QStringLiteral("cannot write %1: %2").arg(configuration, error)};
    if (_kind == Kind::Newsyslog)
        return run({QStringLiteral("-Cr"), QStringLiteral("-f"), configuration});
    // A state file of its own, so that neither the system's state nor a
    // stale one of ours decides anything; size alone does.
    const Result result = run({QStringLiteral("-s"), folder.filePath(QStringLiteral("state")), configuration});
    if (result.outcome == Outcome::Ran)
        completeLogrotate(logPath);
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
