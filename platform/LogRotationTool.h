#pragma once

#include <QLatin1String>
#include <QString>

// Has the system's log rotation tool rotate one log by size, keeping three
// bzip2 archives: newsyslog where it is installed, otherwise logrotate with
// an equivalent configuration. The configuration lives in a private folder
// inside the temporary folder only while the tool runs.
class LogRotationTool
{
public:
    enum class Kind { Newsyslog, Logrotate };
    enum class Outcome { Ran, ConfigurationUnwritable, ToolMissing, ToolFailed };

    struct Result
    {
        Outcome outcome = Outcome::Ran;
        // What went wrong, for the system log; empty when the tool ran.
        QString detail;
    };

    static constexpr QLatin1String newsyslogPath{"/usr/sbin/newsyslog"};
    static constexpr QLatin1String logrotatePath{"/usr/sbin/logrotate"};
    // A tool that hangs must not hold the agent's main thread for ever.
    static constexpr int toolTimeoutMs = 60000;

    // Picks the tool installed on this system.
    LogRotationTool();
    // Tests name the program, so that a missing or failing tool can be had.
    LogRotationTool(Kind kind, const QString &program);

    Kind kind() const { return _kind; }
    QString program() const { return _program; }

    static QString newsyslogConfiguration(const QString &logPath, uint uid, uint gid, qint64 sizeLimitKB);
    static QString logrotateConfiguration(const QString &logPath, uint uid, uint gid, qint64 sizeLimitKB);

    // Writes the configuration, runs the tool until it exits and removes the
    // configuration again, whatever happened.
    Result rotate(const QString &logPath, uint uid, uint gid, qint64 sizeLimitKB) const;

private:
    Result run(const QStringList &arguments) const;
    void completeLogrotate(const QString &logPath) const;

    Kind _kind;
    QString _program;
};
