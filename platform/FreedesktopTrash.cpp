#include "FreedesktopTrash.h"

#include "UserFolders.h"

#include <QStorageInfo>

#include <unistd.h>

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
        folders << top + QStringLiteral("/.Trash/") + uid << top + QStringLiteral("/.Trash-") + uid;
    }
    return folders;
}
