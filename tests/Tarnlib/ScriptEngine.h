#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// An engine prefix whose bin/clamdscan and bin/clamscan are one bash script,
// for what the real engine cannot be made to do on cue: record its command
// line, hold still until released, or run long enough to be signalled.
// Before the body runs, the script records its arguments, copies the file it
// was given with "--file-list=" and then publishes its pid.
class ScriptEngine
{
public:
    // In the body, $dir is this engine's folder; waitForRelease() gives a
    // line that waits, without starting other processes, for release().
    explicit ScriptEngine(const QString &body);
    static QString waitForRelease();

    bool isValid() const { return _valid; }
    QString enginePath() const { return _dir.path(); }

    // Empty until the script has started.
    QStringList recordedArguments() const;
    QByteArray copiedFileList() const { return read("list"); }
    qint64 pid() const { return read("pid").trimmed().toLongLong(); }

    void release() const;

private:
    QByteArray read(const QString &name) const;

    QTemporaryDir _dir;
    bool _valid = false;
};
