#include "FolderTree.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// Makes name in parent and answers a descriptor of it; -1 on failure.
int makeFolder(int parent, const char *name)
{
    if (::mkdirat(parent, name, 0755) != 0)
        return -1;
    return ::openat(parent, name, folderFlags);
}

qint64 fill(int folder, const QList<int> &fanouts, qsizetype level, int filesPerLeaf)
{
    if (level == fanouts.size()) {
        for (int i = 0; i < filesPerLeaf; ++i) {
            const int file = ::openat(folder, QByteArray("f" + QByteArray::number(i)).constData(),
                                      O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            if (file < 0 || ::write(file, "file\n", 5) != 5 || ::close(file) != 0)
                return -1;
        }
        return 0;
    }
    qint64 made = 0;
    for (int i = 0; i < fanouts.at(level); ++i) {
        const QByteArray name = QByteArray::number(i);
        const int child = makeFolder(folder, name.constData());
        if (child < 0)
            return -1;
        const qint64 below = fill(child, fanouts, level + 1, filesPerLeaf);
        ::close(child);
        if (below < 0)
            return -1;
        made += 1 + below;
    }
    return made;
}

int makeRoot(const QString &root)
{
    const QByteArray path = QFile::encodeName(root);
    if (::mkdir(path.constData(), 0755) != 0)
        return -1;
    return ::open(path.constData(), folderFlags);
}

} // namespace

qint64 FolderTree::makeWide(const QString &root, const QList<int> &fanouts, int filesPerLeaf)
{
    const int top = makeRoot(root);
    if (top < 0)
        return -1;
    const qint64 made = fill(top, fanouts, 0, filesPerLeaf);
    ::close(top);
    return made < 0 ? -1 : made + 1;
}

qint64 FolderTree::makeDeep(const QString &root, int chains, int depth)
{
    const int top = makeRoot(root);
    if (top < 0)
        return -1;
    qint64 made = 1;
    for (int chain = 0; chain < chains; ++chain) {
        int folder = makeFolder(top, QByteArray::number(chain).constData());
        for (int level = 1; folder >= 0 && level < depth; ++level) {
            const int child = makeFolder(folder, "d");
            ::close(folder);
            folder = child;
        }
        if (folder < 0) {
            ::close(top);
            return -1;
        }
        ::close(folder);
        made += depth;
    }
    ::close(top);
    return made;
}

bool FolderTree::remove(const QString &root)
{
    std::error_code error;
    std::filesystem::remove_all(std::filesystem::path(QFile::encodeName(root).toStdString()), error);
    return !error;
}
