// gfslogger-repair (no arguments), run as root through pkexec.
//
// Makes the gfslogger beside this program root-owned and set-user-ID and
// set-group-ID (mode 6755). It acts on that one file only, and only where
// no one but root can have put it there, so that it never turns a program
// of someone else's into one that runs as root.

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int fail(const std::string &what)
{
    std::fprintf(stderr, "gfslogger-repair: %s\n", what.c_str());
    return 1;
}

bool onlyRootWrites(const struct stat &info)
{
    return info.st_uid == 0 && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

} // namespace

int main(int argc, char **)
{
    if (argc != 1)
        return fail("takes no arguments");
    if (geteuid() != 0)
        return fail("must run as root");
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return fail(std::string("cannot find itself: ") + std::strerror(errno));
    self[length] = '\0';
    char *slash = std::strrchr(self, '/');
    if (!slash)
        return fail("cannot find itself");
    slash[slash == self ? 1 : 0] = '\0';
    const std::string folder(self);

    const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat info = {};
    if (directory < 0 || fstat(directory, &info) != 0)
        return fail("cannot open " + folder + ": " + std::strerror(errno));
    if (!onlyRootWrites(info))
        return fail(folder + " may be written by others than root; refusing");

    const int logger = openat(directory, "gfslogger", O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (logger < 0 || fstat(logger, &info) != 0)
        return fail("cannot open " + folder + "/gfslogger: " + std::strerror(errno));
    if (!S_ISREG(info.st_mode) || info.st_nlink != 1)
        return fail(folder + "/gfslogger is not a plain file; refusing");
    if (fchown(logger, 0, gid_t(-1)) != 0 || fchmod(logger, 06755) != 0)
        return fail("cannot set the owner and mode of " + folder + "/gfslogger: " + std::strerror(errno));
    return 0;
}
