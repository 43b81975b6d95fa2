#pragma once

#include <QString>
#include <QTemporaryDir>

// A small tmpfs of its own, mounted on a fresh temporary folder for one
// test: a second file system (moves across it fail) that can be filled up.
// Mounting needs CAP_SYS_ADMIN; where it is not allowed, isMounted() is
// false and reason() says why, so the test can skip with that message.
class MountedTmpfs
{
public:
    // Not executable: a mount that refuses to run programs (noexec).
    explicit MountedTmpfs(qint64 sizeBytes = 1024 * 1024, bool executable = true);
    ~MountedTmpfs();

    bool isMounted() const { return _mounted; }
    QString reason() const { return _reason; }
    QString path() const { return _dir.path(); }
    // Writes until the file system is full.
    void fill() const { fillFolder(path()); }
    static void fillFolder(const QString &folder);
    // Makes the top folder read-only and leaves the folder below it, on the
    // same file system, writable: a volume whose top the user cannot write.
    bool makeReadOnlyExcept(const QString &relativeFolder) const;

private:
    QTemporaryDir _dir;
    bool _mounted = false;
    QString _reason;
};
