#include "SystemLog.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>

#include <syslog.h>

#include <cstdio>

namespace {

QMutex sinkLock;
SystemLog::Sink currentSink;

void writeToSystem(const QString &line)
{
    static const QByteArray ident = [] {
        QByteArray name = QFileInfo(QCoreApplication::applicationFilePath()).fileName().toUtf8();
        if (name.isEmpty())
            name = "KorvaneVarden";
        return name;
    }();
    static bool opened = false;
    if (!opened) {
        // openlog keeps the pointer, so the ident must live as long as the process.
        openlog(ident.constData(), LOG_PID, LOG_USER);
        opened = true;
    }
    const QByteArray text = line.toUtf8();
    syslog(LOG_NOTICE, "%s", text.constData());
    std::fprintf(stderr, "%s: %s\n", ident.constData(), text.constData());
    std::fflush(stderr);
}

} // namespace

void SystemLog::log(const QString &line)
{
    // The sink runs under the lock: once setSink() has returned, the sink it
    // replaced, and whatever it writes into, is used on no thread any more.
    QMutexLocker locker(&sinkLock);
    if (currentSink)
        currentSink(line);
    else
        writeToSystem(line);
}

SystemLog::Sink SystemLog::setSink(Sink sink)
{
    QMutexLocker locker(&sinkLock);
    Sink previous = currentSink;
    currentSink = std::move(sink);
    return previous;
}
