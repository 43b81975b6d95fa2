#include "KernelSetting.h"

#include <QFile>

KernelSetting::KernelSetting(const QString &path)
    : _path(path)
{
    QFile file(path);
    if (file.open(QIODevice::ReadOnly))
        _original = file.readAll().trimmed().toLongLong();
}

KernelSetting::~KernelSetting()
{
    restore();
}

bool KernelSetting::set(qint64 value)
{
    if (_original < 0) {
        _error = QStringLiteral("cannot read %1").arg(_path);
        return false;
    }
    if (!write(value))
        return false;
    _changed = true;
    return true;
}

void KernelSetting::restore()
{
    if (_changed && write(_original))
        _changed = false;
}

bool KernelSetting::write(qint64 value)
{
    QFile file(_path);
    if (!file.open(QIODevice::WriteOnly) || file.write(QByteArray::number(value)) < 0 || !file.flush()) {
        _error = QStringLiteral("cannot write %1: %2").arg(_path, file.errorString());
        return false;
    }
    return true;
}
