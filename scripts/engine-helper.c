/*
 * The one privileged path of a shared engine prefix: lets any local user start
 * the prefix's scan daemon or update its definitions, always as the engine
 * account and always with the prefix's own root-owned configuration.
 * install-engine builds it with the prefix and account compiled in and
 * installs it setuid root as PREFIX/libexec/engine-helper.
 *
 *   engine-helper clamd              start the shared daemon (ending one that
 *                                    holds the socket but does not answer)
 *   engine-helper freshclam [OPT...] update the definitions
 */
#define _GNU_SOURCE
#include "engine-helper-config.h" /* KORVANE_PREFIX, KORVANE_ACCOUNT */

#include <errno.h>
#include <grp.h>
#include <poll.h>
#include <stdint.h>
#include <pwd.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#define CLAMD_CONF KORVANE_PREFIX "/etc/clamd.conf"
#define FRESHCLAM_CONF KORVANE_PREFIX "/etc/freshclam.conf"
#define DB_DIR KORVANE_PREFIX "/share/clamav"
#define SOCKET KORVANE_PREFIX "/run/clamd.sock"
#define PID_FILE KORVANE_PREFIX "/run/clamd.pid"

/* What freshclam itself exits with for an option it does not know. */
enum { STATUS_BAD_OPTION = 2, STATUS_FAILED = 62 };

static void die(int status, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fputs("engine-helper: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
    exit(status);
}

/* A configuration anyone but root could edit would let them choose what the
 * daemon or updater does with the engine account's rights. */
static void require_root_owned(const char *path, int want_folder)
{
    struct stat st;
    if (lstat(path, &st) != 0)
        die(STATUS_FAILED, "%s: %s", path, strerror(errno));
    if ((want_folder ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode)) || st.st_uid != 0
        || (st.st_mode & (S_IWGRP | S_IWOTH)))
        die(STATUS_FAILED, "%s must be a %s only root can change", path, want_folder ? "folder" : "file");
}

/* The folders above it too, or the file could be swapped for another. */
static void require_root_owned_config(const char *path)
{
    require_root_owned(KORVANE_PREFIX, 1);
    require_root_owned(KORVANE_PREFIX "/etc", 1);
    require_root_owned(path, 0);
}

/* The daemon serves every user, so it keeps none of the caller's identity,
 * not even the real user id a compromised daemon could switch back to. The
 * updater serves only its caller, who may keep the right to signal it. */
static void become_engine_account(int keep_caller_as_real_uid)
{
    const uid_t caller = getuid();
    const struct passwd *account = getpwnam(KORVANE_ACCOUNT);
    if (!account)
        die(STATUS_FAILED, "no account %s", KORVANE_ACCOUNT);
    const uid_t uid = account->pw_uid;
    const gid_t gid = account->pw_gid;
    if (initgroups(account->pw_name, gid) != 0 || setresgid(gid, gid, gid) != 0)
        die(STATUS_FAILED, "cannot take the groups of %s: %s", KORVANE_ACCOUNT, strerror(errno));
    const uid_t real = keep_caller_as_real_uid && caller != 0 ? caller : uid;
    if (setresuid(real, uid, uid) != 0)
        die(STATUS_FAILED, "cannot become %s: %s", KORVANE_ACCOUNT, strerror(errno));
    if (geteuid() != uid || getegid() != gid || (real != uid && setuid(0) == 0))
        die(STATUS_FAILED, "could not drop privileges");
}

enum daemon_state { DAEMON_ABSENT, DAEMON_ANSWERS, DAEMON_HANGS };

/* How long a daemon may take to answer PING before it counts as hung. */
#define PING_LIMIT_MS 3000

/* A second daemon would fail on the socket, but only after it has written
 * its pid over that of the one that runs. A stopped daemon still accepts
 * connections (the kernel queues them), so only an answer counts. */
static enum daemon_state daemon_state(void)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (strlen(SOCKET) >= sizeof address.sun_path)
        return DAEMON_ABSENT;
    strcpy(address.sun_path, SOCKET);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return DAEMON_ABSENT;
    /* Bounds connect() too, should the daemon's queue be full. */
    const struct timeval limit = {.tv_sec = PING_LIMIT_MS / 1000, .tv_usec = (PING_LIMIT_MS % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    enum daemon_state state = DAEMON_ABSENT;
    if (connect(fd, (const struct sockaddr *)&address, sizeof address) == 0) {
        state = DAEMON_HANGS;
        struct pollfd reply = {.fd = fd, .events = POLLIN};
        char answer[8];
        if (send(fd, "zPING", sizeof "zPING", MSG_NOSIGNAL) == (ssize_t)sizeof "zPING"
            && poll(&reply, 1, PING_LIMIT_MS) == 1 && recv(fd, answer, sizeof answer, 0) > 0)
            state = DAEMON_ANSWERS;
    } else if (errno == EAGAIN || errno == EINPROGRESS) {
        state = DAEMON_HANGS;
    }
    close(fd);
    return state;
}

/* Reads all of a small /proc file; the length read, or -1. */
static ssize_t read_proc(pid_t pid, const char *name, char *buffer, size_t size)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/%s", (int)pid, name);
    FILE *file = fopen(path, "re");
    if (!file)
        return -1;
    const size_t got = fread(buffer, 1, size - 1, file);
    fclose(file);
    buffer[got] = '\0';
    return (ssize_t)got;
}

/* Gone, or a zombie whose parent has yet to reap it. */
static int process_ended(pid_t pid)
{
    char stat[512];
    if (read_proc(pid, "stat", stat, sizeof stat) < 0)
        return 1;
    const char *close_paren = strrchr(stat, ')');
    return !close_paren || close_paren[1] != ' ' || close_paren[2] == 'Z';
}

/* Ends the daemon that holds the socket without answering. Run as the engine
 * account, and only on the process the pid file names when it is this
 * prefix's daemon of that account: no caller can end anything else. */
static void end_hung_daemon(uid_t account)
{
    char text[32] = {0};
    FILE *file = fopen(PID_FILE, "re");
    if (!file)
        die(STATUS_FAILED, "the daemon on %s does not answer and %s cannot be read", SOCKET, PID_FILE);
    const size_t got = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    text[got] = '\0';
    char *end = NULL;
    errno = 0;
    const long number = strtol(text, &end, 10);
    if (errno != 0 || end == text || (*end != '\0' && *end != '\n') || number <= 1 || number > INT32_MAX)
        die(STATUS_FAILED, "the daemon on %s does not answer and %s holds no pid", SOCKET, PID_FILE);
    const pid_t pid = (pid_t)number;

    static const char expected[] = "/usr/sbin/clamd\0--config-file=" CLAMD_CONF "\0";
    char cmdline[sizeof expected + 1];
    char status[4096];
    const ssize_t length = read_proc(pid, "cmdline", cmdline, sizeof cmdline);
    int same_account = 0;
    if (read_proc(pid, "status", status, sizeof status) > 0) {
        const char *uids = strstr(status, "\nUid:");
        unsigned real, effective, saved, filesystem;
        same_account = uids && sscanf(uids, "\nUid: %u %u %u %u", &real, &effective, &saved, &filesystem) == 4
                       && real == account && effective == account && saved == account && filesystem == account;
    }
    if (length != (ssize_t)(sizeof expected - 1) || memcmp(cmdline, expected, sizeof expected - 1) != 0
        || !same_account)
        die(STATUS_FAILED, "the daemon on %s does not answer and pid %d is not this prefix's daemon", SOCKET,
            (int)pid);

    fprintf(stderr, "engine-helper: the shared daemon (pid %d) does not answer: ending it\n", (int)pid);
    if (kill(pid, SIGKILL) != 0 && errno != ESRCH)
        die(STATUS_FAILED, "kill %d: %s", (int)pid, strerror(errno));
    for (int waited = 0; !process_ended(pid); waited += 20) {
        if (waited >= 10000)
            die(STATUS_FAILED, "the shared daemon (pid %d) did not end", (int)pid);
        usleep(20000);
    }
}

static int allowed_update_option(const char *option)
{
    static const char *const fixed[] = {"--stdout",
                                        "--on-update-execute=EXIT_1",
                                        "--no-dns",
                                        "--version",
                                        "-V",
                                        "--quiet",
                                        "--verbose",
                                        "--show-progress",
                                        "--no-warnings",
                                        "--log=" DB_DIR "/freshclam.log",
                                        NULL};
    for (const char *const *f = fixed; *f; ++f)
        if (strcmp(option, *f) == 0)
            return 1;
    return 0;
}

static pid_t update_child;

static void pass_on(int signal_number)
{
    if (update_child > 0)
        kill(update_child, signal_number);
}

static int run_update(char **options, int count)
{
    for (int i = 0; i < count; ++i)
        if (!allowed_update_option(options[i]))
            die(STATUS_BAD_OPTION, "option not allowed through the shared prefix: %s", options[i]);

    char **argv = calloc((size_t)count + 3, sizeof *argv);
    if (!argv)
        die(STATUS_FAILED, "out of memory");
    argv[0] = "/usr/bin/freshclam";
    argv[1] = "--config-file=" FRESHCLAM_CONF;
    for (int i = 0; i < count; ++i)
        argv[i + 2] = options[i];

    struct sigaction forward = {0};
    forward.sa_handler = pass_on;
    sigemptyset(&forward.sa_mask);
    sigaction(SIGTERM, &forward, NULL);
    sigaction(SIGINT, &forward, NULL);
    sigaction(SIGHUP, &forward, NULL);

    update_child = fork();
    if (update_child < 0)
        die(STATUS_FAILED, "fork: %s", strerror(errno));
    if (update_child == 0) {
        execv(argv[0], argv);
        die(STATUS_FAILED, "%s: %s", argv[0], strerror(errno));
    }
    int status = 0;
    while (waitpid(update_child, &status, 0) < 0)
        if (errno != EINTR)
            die(STATUS_FAILED, "waitpid: %s", strerror(errno));

    /* Official daily definitions now carry the version; our set stays loaded
     * under a name that does not compete with them for it. */
    struct stat st;
    if (stat(DB_DIR "/daily.cud", &st) == 0
        && (stat(DB_DIR "/daily.cvd", &st) == 0 || stat(DB_DIR "/daily.cld", &st) == 0))
        rename(DB_DIR "/daily.cud", DB_DIR "/korvane.cud");

    if (WIFSIGNALED(status)) {
        signal(WTERMSIG(status), SIG_DFL);
        raise(WTERMSIG(status));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : STATUS_FAILED;
}

int main(int argc, char **argv)
{
    if (argc < 2)
        die(STATUS_BAD_OPTION, "usage: engine-helper clamd | freshclam [OPTION...]");
    /* Nothing of the caller's environment reaches the engine account. */
    clearenv();
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    umask(022);
    if (chdir("/") != 0)
        die(STATUS_FAILED, "chdir /: %s", strerror(errno));

    if (strcmp(argv[1], "clamd") == 0) {
        if (argc != 2)
            die(STATUS_BAD_OPTION, "the shared daemon takes no options");
        require_root_owned_config(CLAMD_CONF);
        become_engine_account(0);
        const enum daemon_state state = daemon_state();
        if (state == DAEMON_ANSWERS) {
            fprintf(stderr, "engine-helper: the shared daemon already listens on %s\n", SOCKET);
            return 0;
        }
        if (state == DAEMON_HANGS)
            end_hung_daemon(geteuid());
        execl("/usr/sbin/clamd", "/usr/sbin/clamd", "--config-file=" CLAMD_CONF, (char *)NULL);
        die(STATUS_FAILED, "/usr/sbin/clamd: %s", strerror(errno));
    }
    if (strcmp(argv[1], "freshclam") == 0) {
        require_root_owned_config(FRESHCLAM_CONF);
        become_engine_account(1);
        return run_update(argv + 2, argc - 2);
    }
    die(STATUS_BAD_OPTION, "unknown action %s", argv[1]);
}
