#pragma once

#include "platform/LogRotationTool.h"

#include <QList>
#include <QString>
#include <QVariant>

class QXUtils;

// Has the system's rotation tool archive the agent's scan log once it has
// grown past the size limit the user chose. Runs at every start of watching;
// failures never reach the user and are logged once per kind.
class ScanLogRotator
{
public:
    static constexpr qint64 defaultSizeLimitKB = 5120;

    explicit ScanLogRotator(const QXUtils *utils, const LogRotationTool &tool = LogRotationTool());

    void rotateLogFile();

    // Kilobytes from "rotateScanlogWhenSizeReaches": a number above 0, else
    // the default.
    qint64 sizeLimit() const;
    static qint64 sizeLimitFrom(const QVariant &preference);
    static QString logPath();

private:
    const QXUtils *_utils;
    LogRotationTool _tool;
    QList<LogRotationTool::Outcome> _reported;
};
