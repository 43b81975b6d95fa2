#pragma once

#include "platform/SystemLog.h"

#include <QByteArray>
#include <QCoreApplication>

#include <cstddef>
#include <cstdint>

// Made once per fuzzing process: the application object that readers using
// events or files need, and a system log that drops its lines, since a
// fuzzer would write thousands a second.
inline void fuzzApplication()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    static const bool quiet = (SystemLog::setSink([](const QString &) {}), true);
    (void)quiet;
}

inline QByteArray fuzzInput(const uint8_t *data, size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), qsizetype(size));
}
