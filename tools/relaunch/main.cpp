// relaunch AGENT_PATH PID: waits for process PID to end, then starts
// AGENT_PATH again in a session of its own and exits.

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

namespace {

bool parsePid(const char *text, pid_t &pid)
{
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value <= 0 || value != static_cast<pid_t>(value))
        return false;
    pid = static_cast<pid_t>(value);
    return true;
}

void waitForExit(pid_t pid)
{
#ifdef SYS_pidfd_open
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        pollfd watched{pidfd, POLLIN, 0};
        while (poll(&watched, 1, -1) < 0 && errno == EINTR) {}
        close(pidfd);
        return;
    }
    if (errno == ESRCH)
        return;
#endif
    // EPERM: the process exists but belongs to someone else.
    while (kill(pid, 0) == 0 || errno == EPERM)
        usleep(100 * 1000);
}

// Answers 0, or the errno of a failed start.
int startDetached(const char *path)
{
    // Closed on a successful exec; otherwise the child writes errno into it.
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0)
        return errno;
    const pid_t child = fork();
    if (child < 0) {
        const int error = errno;
        close(report[0]);
        close(report[1]);
        return error;
    }
    if (child == 0) {
        close(report[0]);
        setsid();
        char *const arguments[] = {const_cast<char *>(path), nullptr};
        execv(path, arguments);
        const int error = errno;
        (void)!write(report[1], &error, sizeof error);
        _exit(127);
    }
    close(report[1]);
    int error = 0;
    ssize_t got;
    while ((got = read(report[0], &error, sizeof error)) < 0 && errno == EINTR) {}
    close(report[0]);
    return got == sizeof error ? error : 0;
}

} // namespace

int main(int argc, char **argv)
{
    pid_t pid = 0;
    if (argc != 3 || !parsePid(argv[2], pid)) {
        std::fprintf(stderr, "usage: relaunch AGENT_PATH PID\n");
        return 2;
    }
    const char *agent = argv[1];
    struct stat info
    {};
    if (stat(agent, &info) != 0 || !S_ISREG(info.st_mode) || access(agent, X_OK) != 0) {
        std::fprintf(stderr, "relaunch: %s is not an executable file\n", agent);
        return 1;
    }
    waitForExit(pid);
    if (const int error = startDetached(agent)) {
        std::fprintf(stderr, "relaunch: cannot start %s: %s\n", agent, std::strerror(error));
        return 1;
    }
    return 0;
}
