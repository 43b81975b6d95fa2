#include "FreedesktopTrash.h"

#include "FileMove.h"
#include "UserFolders.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Gives up naming after this many taken names rather than looping forever.
constexpr int maximumNumber = 10000;

bool deviceOf(const QString &path, dev_t *device)
{
    struct stat info;
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return false;
    *device = info.st_dev;
    return true;
}

// The Trash need not exist yet; the file system it will be on is that of its
// nearest existing folder.
bool deviceOfFutureFolder(QString path, dev_t *device)
{
    while (!deviceOf(path, device)) {
        const QString parent = QFileInfo(path).path();
        if (parent == path)
            return false;
        path = parent;
    }
    return true;
}

// The mount point of the folder's file system: its highest ancestor on the
// same device.
QString topDirectory(const QString &folder, dev_t device)
{
    QString top = folder;
    while (top != QLatin1String("/")) {
        const QString parent = QFileInfo(top).path();
        dev_t parentDevice;
        if (!deviceOf(parent, &parentDevice) || parentDevice != device)
            break;
        top = parent;
    }
    return top;
}

// A folder of our own: made with mode 700 when missing, refused when it is a
// link or belongs to someone else, since files of ours would land there.
bool privateFolder(const QString &path, QString *error)
{
    const QByteArray name = QFile::encodeName(path);
    if (::mkdir(name.constData(), 0700) != 0 && errno != EEXIST) {
        *error = QStringLiteral("cannot create %1: %2").arg(path, FileMove::errorText(errno));
        return false;
    }
    struct stat info;
    if (::lstat(name.constData(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::getuid()) {
        *error = QStringLiteral("%1 is not a folder of the current user").arg(path);
        return false;
    }
    return true;
}

// "$topdir/.Trash" counts only as a real folder (lstat: no link) with the
// sticky bit: anyone who can write to the volume could make one.
bool stickyFolder(const QString &path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 && S_ISDIR(info.st_mode)
           && (info.st_mode & S_ISVTX);
}

bool writeExclusively(const QString &path, const QByteArray &contents, int *errorNumber)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        *errorNumber = errno;
        return false;
    }
    qsizetype written = 0;
    while (written < contents.size()) {
        const ssize_t n = ::write(fd, contents.constData() + written, size_t(contents.size() - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            *errorNumber = n < 0 ? errno : ENOSPC;
            ::close(fd);
            ::unlink(QFile::encodeName(path).constData());
            return false;
        }
        written += n;
    }
    if (::close(fd) != 0) {
        *errorNumber = errno;
        ::unlink(QFile::encodeName(path).constData());
        return false;
    }
    return true;
}

} // namespace

QString FreedesktopTrash::homeTrash()
{
    return UserFolders::dataHome() + QStringLiteral("/Trash");
}

QStringList FreedesktopTrash::volumeRoots()
{
    static const QList<QByteArray> pseudo{"proc",       "sysfs",     "devpts",   "cgroup",  "cgroup2",
                                          "securityfs", "debugfs",   "tracefs",  "pstore",  "bpf",
                                          "mqueue",     "hugetlbfs", "configfs", "fusectl", "binfmt_misc",
                                          "autofs",     "devtmpfs",  "nsfs",     "efivarfs"};
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
        if (stickyFolder(top + QStringLiteral("/.Trash")))
            folders << top + QStringLiteral("/.Trash/") + uid;
        folders << top + QStringLiteral("/.Trash-") + uid;
    }
    return folders;
}

QString FreedesktopTrash::numberedName(const QString &name, int number)
{
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot <= 0)
        return name + QLatin1Char('.') + QString::number(number);
    return name.left(dot) + QLatin1Char('.') + QString::number(number) + name.mid(dot);
}

QString FreedesktopTrash::moveToTrash(const QString &path, QString *error, const TargetCheck &aboutToMove)
{
    QString ignored;
    if (!error)
        error = &ignored;
    const QFileInfo file(path);
    dev_t fileDevice;
    if (!file.isAbsolute() || !deviceOf(path, &fileDevice)) {
        *error = QStringLiteral("%1: no such file").arg(path);
        return {};
    }
    const QString folder = QFileInfo(file.path()).canonicalFilePath();
    const QString name = file.fileName();
    const QString realPath = (folder == QLatin1String("/") ? QString() : folder) + QLatin1Char('/') + name;

    QString trash;
    QString recordedPath;
    dev_t homeDevice;
    if (deviceOfFutureFolder(homeTrash(), &homeDevice) && homeDevice == fileDevice) {
        trash = homeTrash();
        if (!QDir().mkpath(UserFolders::dataHome())) {
            *error = QStringLiteral("cannot create %1").arg(UserFolders::dataHome());
            return {};
        }
        if (!privateFolder(trash, error))
            return {};
        recordedPath = realPath;
    } else {
        const QString top = topDirectory(folder, fileDevice);
        const QString base = top == QLatin1String("/") ? QString() : top;
        const QString uid = QString::number(::getuid());
        const QString shared = base + QStringLiteral("/.Trash");
        QString unused;
        if (stickyFolder(shared) && privateFolder(shared + QLatin1Char('/') + uid, &unused)) {
            trash = shared + QLatin1Char('/') + uid;
            recordedPath = realPath.mid(base.size() + 1);
        } else if (privateFolder(base + QStringLiteral("/.Trash-") + uid, &unused)) {
            trash = base + QStringLiteral("/.Trash-") + uid;
            recordedPath = realPath.mid(base.size() + 1);
        } else {
            // A volume whose top the user cannot write (/srv on a partition
            // of its own): the home Trash takes the file as a checked copy.
            trash = homeTrash();
            if (!QDir().mkpath(UserFolders::dataHome())) {
                *error = QStringLiteral("cannot create %1").arg(UserFolders::dataHome());
                return {};
            }
            if (!privateFolder(trash, error))
                return {};
            recordedPath = realPath;
        }
    }
    if (!privateFolder(trash + QStringLiteral("/files"), error)
        || !privateFolder(trash + QStringLiteral("/info"), error))
        return {};

    const QByteArray info =
        "[Trash Info]\nPath=" + QFile::encodeName(recordedPath).toPercentEncoding("/") + "\nDeletionDate="
        + QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss")).toLatin1() + '\n';
    for (int number = 1; number <= maximumNumber; ++number) {
        const QString trashName = number == 1 ? name : numberedName(name, number);
        const QString infoPath = trash + QStringLiteral("/info/") + trashName + QStringLiteral(".trashinfo");
        const QString target = trash + QStringLiteral("/files/") + trashName;
        int errorNumber = 0;
        if (!writeExclusively(infoPath, info, &errorNumber)) {
            if (errorNumber == EEXIST)
                continue;
            *error = QStringLiteral("cannot write %1: %2").arg(infoPath, FileMove::errorText(errorNumber));
            return {};
        }
        // Only a name whose record is ours: another file may hold the others.
        if (aboutToMove && !aboutToMove(target)) {
            QFile::remove(infoPath);
            *error = QStringLiteral("the move of %1 to %2 could not be recorded").arg(path, target);
            return {};
        }
        errorNumber = FileMove::moveOrCopyWithoutReplacing(path, target);
        if (errorNumber == 0)
            return target;
        QFile::remove(infoPath);
        // A file in files/ without its record still holds the name.
        if (errorNumber != EEXIST) {
            *error = QStringLiteral("cannot move %1 to %2: %3").arg(path, target, FileMove::errorText(errorNumber));
            return {};
        }
    }
    *error = QStringLiteral("no free name for %1 in %2").arg(name, trash);
    return {};
}

void FreedesktopTrash::forgetTrashedFile(const QString &pathInTrash)
{
    const QFileInfo file(pathInTrash);
    const QFileInfo files(file.path());
    if (files.fileName() != QLatin1String("files") || !trashFolders().contains(files.path()))
        return;
    QFile::remove(files.path() + QStringLiteral("/info/") + file.fileName() + QStringLiteral(".trashinfo"));
}
