#include "MountedTmpfs.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <sys/mount.h>

MountedTmpfs::MountedTmpfs(qint64 sizeBytes, bool executable)
{
    if (!_dir.isValid()) {
        _reason = QStringLiteral("no temporary folder");
        return;
    }
    const QByteArray options = "size=" + QByteArray::number(sizeBytes) + ",mode=0700";
    if (::mount("korvane-test", QFile::encodeName(_dir.path()).constData(), "tmpfs",
                MS_NOSUID | MS_NODEV | (executable ? 0 : MS_NOEXEC), options.constData())
        != 0) {
        _reason = QStringLiteral("cannot mount a tmpfs here (%1); run as root to test a second file system")
                      .arg(QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    _mounted = true;
}

MountedTmpfs::~MountedTmpfs()
{
    // Lazily, so that a file a failed test left open cannot keep it mounted.
    if (_mounted)
        ::umount2(QFile::encodeName(_dir.path()).constData(), MNT_DETACH);
}

void MountedTmpfs::fillFolder(const QString &folder)
{
    // Unbuffered and down to single bytes, so that no page is left free.
    QFile filler(folder + QStringLiteral("/filler"));
    if (filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
        for (const qsizetype chunk : {qsizetype(4096), qsizetype(1)})
            while (filler.write(QByteArray(chunk, 'f')) == chunk) {}
    }
}

bool MountedTmpfs::makeReadOnlyExcept(const QString &relativeFolder) const
{
    const QByteArray top = QFile::encodeName(_dir.path());
    const QByteArray writable = QFile::encodeName(_dir.filePath(relativeFolder));
    return _mounted && ::mount(writable.constData(), writable.constData(), nullptr, MS_BIND, nullptr) == 0
           && ::mount(nullptr, top.constData(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV,
                      nullptr)
                  == 0;
}
