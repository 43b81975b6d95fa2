// gfslogger FOLDER...
//
// Prints the absolute path of every file written and closed on the file
// systems that hold the given folders, one per line, until it is terminated.
// fanotify over a whole file system needs CAP_SYS_ADMIN, so the program is
// installed set-user-ID root. It must never let a user watch another: once
// the marks are set it drops to the real ids for good, and a path is printed
// only when the real user may read the file under that very name.

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void complain(const std::string &what)
{
    std::fprintf(stderr, "gfslogger: %s\n", what.c_str());
}

bool dropPrivileges()
{
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (setresgid(gid, gid, gid) != 0 || setresuid(uid, uid, uid) != 0)
        return false;
    // Had a way back to root been kept, the drop would mean nothing.
    return uid == 0 || (setuid(0) != 0 && seteuid(0) != 0);
}

bool startsWithAny(const std::string &path, const std::vector<std::string> &folders)
{
    for (const std::string &folder : folders)
        if (path.compare(0, folder.size(), folder) == 0)
            return true;
    return false;
}

// The name must still lead to the file the kernel reported, and the real
// user must be able to reach it through every folder on the way and read it.
bool readableByRealUser(const std::string &path, int fd)
{
    struct stat byName = {}, byEvent = {};
    if (fstat(fd, &byEvent) != 0 || !S_ISREG(byEvent.st_mode))
        return false;
    if (faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0)
        return false;
    if (fstatat(AT_FDCWD, path.c_str(), &byName, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    return byName.st_dev == byEvent.st_dev && byName.st_ino == byEvent.st_ino;
}

std::string pathOf(int fd)
{
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char path[PATH_MAX];
    const ssize_t length = readlink(link, path, sizeof path);
    if (length <= 0 || size_t(length) >= sizeof path)
        return {};
    return std::string(path, size_t(length));
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> folders;
    for (int i = 1; i < argc; ++i) {
        std::string folder = argv[i];
        while (folder.size() > 1 && folder.back() == '/')
            folder.pop_back();
        if (folder.empty() || folder.front() != '/') {
            complain("not an absolute path: " + folder);
            continue;
        }
        // access() asks as the real user: a folder the caller cannot reach
        // names no file system for it.
        if (access(folder.c_str(), X_OK) != 0) {
            complain("cannot watch " + folder + ": " + std::strerror(errno));
            continue;
        }
        folders.push_back(folder);
    }
    if (folders.empty()) {
        complain("usage: gfslogger FOLDER...");
        dropPrivileges();
        return 2;
    }

    const int notifications = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE | O_CLOEXEC);
    if (notifications < 0) {
        const int error = errno;
        dropPrivileges();
        complain(std::string("fanotify is not available (it needs CAP_SYS_ADMIN; install gfslogger set-user-ID root): ")
                 + std::strerror(error));
        return 1;
    }
    int marked = 0;
    for (const std::string &folder : folders) {
        if (fanotify_mark(notifications, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_CLOSE_WRITE, AT_FDCWD, folder.c_str())
            == 0)
            ++marked;
        else
            complain("cannot watch the file system of " + folder + ": " + std::strerror(errno));
    }
    if (!dropPrivileges()) {
        complain(std::string("cannot give up the set-user-ID rights: ") + std::strerror(errno));
        return 1;
    }
    if (marked == 0)
        return 1;

    alignas(fanotify_event_metadata) char buffer[64 * 1024];
    for (;;) {
        const ssize_t length = read(notifications, buffer, sizeof buffer);
        if (length < 0) {
            // The kernel opens each file as the reader, now the real user: a
            // file that user may not open is dropped with an error here.
            if (errno == EINTR || errno == EACCES || errno == EPERM || errno == ENOENT || errno == ENXIO
                || errno == EMFILE || errno == ENFILE || errno == ETXTBSY || errno == EROFS)
                continue;
            complain(std::string("cannot read events: ") + std::strerror(errno));
            return 1;
        }
        auto *event = reinterpret_cast<const fanotify_event_metadata *>(buffer);
        ssize_t left = length;
        for (; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
            if (event->fd < 0)
                continue;
            const std::string path = pathOf(event->fd);
            // A line per path: a name holding a line feed cannot be told.
            if (!path.empty() && path.front() == '/' && path.find('\n') == std::string::npos
                && startsWithAny(path, folders) && readableByRealUser(path, event->fd)) {
                std::fwrite(path.data(), 1, path.size(), stdout);
                std::fputc('\n', stdout);
            }
            close(event->fd);
        }
        if (std::fflush(stdout) != 0)
            return 0;
    }
}
