#pragma once

#include <QString>

// A value under /proc/sys changed for one test and always put back.
class KernelSetting
{
public:
    explicit KernelSetting(const QString &path);
    ~KernelSetting();

    // False, with the reason in error(), when the value cannot be written (not root).
    bool set(qint64 value);
    void restore();
    QString error() const { return _error; }

private:
    bool write(qint64 value);

    QString _path;
    qint64 _original = -1;
    bool _changed = false;
    QString _error;
};
