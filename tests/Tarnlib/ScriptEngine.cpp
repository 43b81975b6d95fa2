#include "ScriptEngine.h"

#include <QDir>
#include <QFile>

#include <sys/stat.h>

ScriptEngine::ScriptEngine(const QString &body)
{
    if (!_dir.isValid() || !QDir(_dir.path()).mkpath("bin"))
        return;
    QString quotedDir = _dir.path();
    quotedDir.replace('\'', "'\\''");
    const QString script =
        QStringLiteral("#!/bin/bash\n"
                       "dir='%1'\n"
                       "printf '%s\\0' \"$@\" > \"$dir/args\"\n"
                       "for arg; do\n"
                       "    case $arg in --file-list=*) cp \"${arg#--file-list=}\" \"$dir/list\" ;; esac\n"
                       "done\n"
                       "echo $$ > \"$dir/pid.new\" && mv \"$dir/pid.new\" \"$dir/pid\"\n"
                       "%2\n")
            .arg(quotedDir, body);
    // Both programs, so that the daemon client and the stand-alone form alike run it.
    for (const char *name : {"bin/clamdscan", "bin/clamscan"}) {
        QFile file(_dir.filePath(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(script.toUtf8()) < 0)
            return;
        file.close();
        if (!file.setPermissions(file.permissions() | QFileDevice::ExeOwner))
            return;
    }
    // Waiting reads from this pipe with a timeout instead of running sleep,
    // so that killing the script leaves no process of it behind.
    _valid = ::mkfifo(QFile::encodeName(_dir.filePath("tick")).constData(), 0600) == 0;
}

QString ScriptEngine::waitForRelease()
{
    return "exec 3<> \"$dir/tick\"\n"
           "while [ ! -e \"$dir/release\" ]; do read -r -t 0.05 -u 3 _ || :; done\n";
}

QStringList ScriptEngine::recordedArguments() const
{
    QByteArray all = read("args");
    if (all.isEmpty())
        return {};
    all.chop(1);
    QStringList arguments;
    for (const QByteArray &argument : all.split('\0'))
        arguments << QString::fromUtf8(argument);
    return arguments;
}

QByteArray ScriptEngine::read(const QString &name) const
{
    QFile file(_dir.filePath(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void ScriptEngine::release() const
{
    QFile(_dir.filePath("release")).open(QIODevice::WriteOnly);
}
