#include "FreedesktopTrash.h"

#include "UserFolders.h"

#include <QFile>
#include <QStorageInfo>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// "$topdir/.Trash" counts only as a real folder with the sticky bit, not a
// symbolic link: anyone who can write to the volume could make one.
bool isSharedTrashUsable(const QString &top)
{
    struct stat status;
    if (::lstat(QFile::encodeName(top + QStringLiteral("/.Trash")).constData(), &status) != 0)
        return false;
    return S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX);
}

} // namespace

QString FreedesktopTrash::homeTrash()
{
    return UserFolders::dataHome() + QStringLiteral("/Trash");
}

QStringList FreedesktopTrash::volumeRoots()
{
    static const QList<QByteArray> pseudo{"proc", "sysfs", "devpts", "cgroup", "cgroup2", "securityfs", "debugfs",
                                          "tracefs", "pstore", "bpf", "mqueue", "hugetlbfs", "configfs",
                                          "fusectl", "binfmt_misc", "autofs", "devtmpfs", "nsfs", "efivarfs"};
    QStringList roots;
    for (const QStorageInfo &volume : QStorageInfo::mountedVolumes()) {
        if (!volume.isValid() || pseudo.contains(volume.fileSystemType()))
            continue;
        roots << volume.rootPath();
    }
    return roots;
}

QStringList FreedesktopTrash::trashFolders() const
{
    const QString uid = QString::number(getuid());
    QStringList folders{homeTrash()};
    for (const QString &root : volumeRoots()) {
        const QString top = root == QLatin1String("/") ? QString() : root;
        if (isSharedTrashUsable(top))
            folders << top + QStringLiteral("/.Trash/") + uid;
        folders << top + QStringLiteral("/.Trash-") + uid;
    }
    return folders;
}
