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
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <stdint.h>
#include <pwd.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#define CLAMD_CONF KORVANE_PREFIX "/etc/clamd.conf"
#define FRESHCLAM_CONF KORVANE_PREFIX "/etc/freshclam.conf"
#define DB_DIR KORVANE_PREFIX "/share/clamav"
#define SOCKET KORVANE_PREFIX "/run/clamd.sock"
#define PID_FILE KORVANE_PREFIX "/run/clamd.pid"
#define START_LOCK KORVANE_PREFIX "/run/clamd.start.lock"
#define RESTART_STAMP KORVANE_PREFIX "/run/clamd.restarted"
#define UPDATE_LOCK KORVANE_PREFIX "/run/freshclam.lock"
/* Optional, root's alone like the rest of etc/: lines "NAME SECONDS". */
#define HELPER_CONF KORVANE_PREFIX "/etc/engine-helper.conf"

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

/* A daemon under load may miss a PING or two; only one that misses every
 * PING over tens of seconds counts as hung, and however often users ask, it
 * is restarted at most once a minute. Only root's configuration may change
 * these, never the caller's environment. */
static struct {
    const char *name;
    long value;
} settings[] = {
    {"PingTimeout", 3},       /* seconds a PING may take */
    {"HungPings", 4},         /* failed PINGs before the daemon counts as hung */
    {"HungPingInterval", 10}, /* seconds between them */
    {"RestartInterval", 60},  /* seconds between two restarts */
    {"LockWait", 600},        /* seconds to wait for another start or update */
};
enum { PING_TIMEOUT, HUNG_PINGS, HUNG_PING_INTERVAL, RESTART_INTERVAL, LOCK_WAIT };

static void read_settings(void)
{
    struct stat st;
    if (lstat(HELPER_CONF, &st) != 0 && errno == ENOENT)
        return;
    require_root_owned(HELPER_CONF, 0);
    FILE *file = fopen(HELPER_CONF, "re");
    if (!file)
        die(STATUS_FAILED, "%s: %s", HELPER_CONF, strerror(errno));
    char line[256];
    while (fgets(line, sizeof line, file)) {
        char name[64];
        long value;
        if (line[0] == '#' || sscanf(line, " %63s", name) != 1)
            continue;
        size_t i = 0;
        while (i < sizeof settings / sizeof *settings && strcmp(settings[i].name, name) != 0)
            ++i;
        if (i == sizeof settings / sizeof *settings || sscanf(line, " %*s %ld", &value) != 1 || value < 1
            || value > 86400)
            die(STATUS_FAILED, "%s: not a setting: %s", HELPER_CONF, line);
        settings[i].value = value;
    }
    fclose(file);
}

enum daemon_state { DAEMON_ABSENT, DAEMON_ANSWERS, DAEMON_HANGS };

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
    const struct timeval limit = {.tv_sec = settings[PING_TIMEOUT].value};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    enum daemon_state state = DAEMON_ABSENT;
    if (connect(fd, (const struct sockaddr *)&address, sizeof address) == 0) {
        state = DAEMON_HANGS;
        struct pollfd reply = {.fd = fd, .events = POLLIN};
        char answer[8];
        if (send(fd, "zPING", sizeof "zPING", MSG_NOSIGNAL) == (ssize_t)sizeof "zPING"
            && poll(&reply, 1, (int)settings[PING_TIMEOUT].value * 1000) == 1
            && recv(fd, answer, sizeof answer, 0) > 0)
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

/* Waits, at most LockWait seconds, for the lock on PATH and answers its
 * descriptor. The holder's pid is kept in the file, so a holder that was
 * stopped is named at once instead of being waited on. */
static int take_lock(const char *path, const char *what)
{
    const int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        die(STATUS_FAILED, "%s: %s", path, strerror(errno));
    const time_t start = time(NULL);
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            die(STATUS_FAILED, "lock %s: %s", path, strerror(errno));
        char text[32] = {0};
        const ssize_t got = pread(fd, text, sizeof text - 1, 0);
        const long holder = got > 0 ? strtol(text, NULL, 10) : 0;
        char stat[512];
        if (holder > 1 && holder <= INT32_MAX && read_proc((pid_t)holder, "stat", stat, sizeof stat) > 0) {
            const char *close_paren = strrchr(stat, ')');
            if (close_paren && (close_paren[2] == 'T' || close_paren[2] == 't'))
                die(STATUS_FAILED, "%s is held by a stopped process (pid %ld); not waiting for it", what, holder);
        }
        if (time(NULL) - start >= settings[LOCK_WAIT].value)
            die(STATUS_FAILED, "%s has been busy for %ld s; giving up", what, settings[LOCK_WAIT].value);
        usleep(200000);
    }
    char text[32];
    const int length = snprintf(text, sizeof text, "%d\n", (int)getpid());
    if (ftruncate(fd, 0) != 0 || pwrite(fd, text, (size_t)length, 0) != length)
        die(STATUS_FAILED, "%s: %s", path, strerror(errno));
    return fd;
}

/* One missed PING is load, not a hang: ask again for a while. */
static int hangs_for_good(void)
{
    for (long i = 1; i < settings[HUNG_PINGS].value; ++i) {
        sleep((unsigned)settings[HUNG_PING_INTERVAL].value);
        if (daemon_state() != DAEMON_HANGS)
            return 0;
    }
    return 1;
}

/* Whoever asks, the daemon every user relies on is restarted at most once
 * in RestartInterval; the stamp lies in run/, which only the engine account
 * may write. */
static void may_restart(const char *caller)
{
    struct stat st;
    const time_t now = time(NULL);
    if (lstat(RESTART_STAMP, &st) == 0 && now - st.st_mtime < settings[RESTART_INTERVAL].value && now >= st.st_mtime)
        die(STATUS_FAILED, "the shared daemon on %s does not answer, but it was restarted %ld s ago; not again yet",
            SOCKET, (long)(now - st.st_mtime));
    const int fd = open(RESTART_STAMP, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0 || dprintf(fd, "%s\n", caller) < 0 || futimens(fd, NULL) != 0)
        die(STATUS_FAILED, "%s: %s", RESTART_STAMP, strerror(errno));
    close(fd);
}

/* What a caller sets before running a set-ID program stays with it and with
 * what it starts: limits such as a file size of 0, ignored or blocked
 * signals, a high nice value, open descriptors. None of it may reach the
 * engine. Runs as root, which alone may raise limits and priority again. */
static void shed_caller_state(void)
{
    /* soft and hard as root's defaults; need: the least the engine works with. */
    static const struct {
        int resource;
        rlim_t soft, hard, need;
    } limits[] = {
        {RLIMIT_CPU, RLIM_INFINITY, RLIM_INFINITY, RLIM_INFINITY},
        {RLIMIT_FSIZE, RLIM_INFINITY, RLIM_INFINITY, RLIM_INFINITY},
        {RLIMIT_DATA, RLIM_INFINITY, RLIM_INFINITY, RLIM_INFINITY},
        {RLIMIT_STACK, 8 << 20, RLIM_INFINITY, 8 << 20},
        {RLIMIT_CORE, 0, 0, 0},
        {RLIMIT_RSS, RLIM_INFINITY, RLIM_INFINITY, RLIM_INFINITY},
        {RLIMIT_NPROC, RLIM_INFINITY, RLIM_INFINITY, 256},
        {RLIMIT_NOFILE, 1024, 4096, 1024},
        {RLIMIT_MEMLOCK, 8 << 20, 8 << 20, 0},
        {RLIMIT_AS, RLIM_INFINITY, RLIM_INFINITY, RLIM_INFINITY},
        {RLIMIT_LOCKS, RLIM_INFINITY, RLIM_INFINITY, RLIM_INFINITY},
        {RLIMIT_NICE, 0, 0, 0},
        {RLIMIT_RTPRIO, 0, 0, 0},
    };
    for (size_t i = 0; i < sizeof limits / sizeof *limits; ++i) {
        struct rlimit limit = {.rlim_cur = limits[i].soft, .rlim_max = limits[i].hard};
        /* Root without CAP_SYS_RESOURCE (some containers) cannot raise a hard
         * limit: then as near as the hard limit allows. */
        if (setrlimit(limits[i].resource, &limit) != 0 && getrlimit(limits[i].resource, &limit) == 0) {
            if (limit.rlim_max != RLIM_INFINITY && (limits[i].soft == RLIM_INFINITY || limits[i].soft > limit.rlim_max))
                limit.rlim_cur = limit.rlim_max;
            else
                limit.rlim_cur = limits[i].soft;
            setrlimit(limits[i].resource, &limit);
        }
        if (getrlimit(limits[i].resource, &limit) != 0
            || (limits[i].need == RLIM_INFINITY ? limit.rlim_cur != RLIM_INFINITY
                                                : limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < limits[i].need))
            die(STATUS_FAILED, "cannot undo the caller's limit on resource %d; run this without it",
                limits[i].resource);
    }
    if (setpriority(PRIO_PROCESS, 0, 0) != 0)
        die(STATUS_FAILED, "cannot reset the nice value: %s", strerror(errno));
    for (int signal_number = 1; signal_number < NSIG; ++signal_number)
        if (signal_number != SIGKILL && signal_number != SIGSTOP)
            signal(signal_number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, NULL);
    /* 0 to 2 stay (the agent reads the updater's output); any of them the
     * caller closed is /dev/null, so no file we open takes its place. */
    for (int fd = 0; fd <= 2; ++fd)
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd)
            die(STATUS_FAILED, "cannot open /dev/null as descriptor %d", fd);
    if (close_range(3, ~0U, 0) != 0)
        die(STATUS_FAILED, "cannot close the caller's descriptors: %s", strerror(errno));
}

/* The daemon outlives the caller: no terminal, session or output of theirs. */
static pid_t start_daemon(void)
{
    const pid_t child = fork();
    if (child != 0)
        return child;
    const int null = open("/dev/null", O_RDWR);
    if (null < 0 || dup2(null, 0) < 0 || dup2(null, 1) < 0 || (null > 2 && close(null) != 0) || setsid() < 0)
        die(STATUS_FAILED, "cannot detach the daemon: %s", strerror(errno));
    /* Standard error stays: the daemon's start-up errors reach the caller. */
    execl("/usr/sbin/clamd", "/usr/sbin/clamd", "--config-file=" CLAMD_CONF, (char *)NULL);
    die(STATUS_FAILED, "/usr/sbin/clamd: %s", strerror(errno));
    return -1;
}

static int wait_for(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            die(STATUS_FAILED, "waitpid: %s", strerror(errno));
    return status;
}

/* Two starts at once would both find no daemon and both start one; the
 * second fails on the socket, but only after writing its pid over that of
 * the first. So the check and the start hold one lock. */
static int run_daemon(const char *caller)
{
    const int lock = take_lock(START_LOCK, "another start of the shared daemon");
    enum daemon_state state = daemon_state();
    if (state == DAEMON_ANSWERS) {
        fprintf(stderr, "engine-helper: the shared daemon already listens on %s\n", SOCKET);
        return 0;
    }
    if (state == DAEMON_HANGS) {
        if (!hangs_for_good()) {
            fprintf(stderr, "engine-helper: the shared daemon on %s answers again\n", SOCKET);
            return 0;
        }
        may_restart(caller);
        syslog(LOG_WARNING, "%s had the shared daemon on %s restarted: no answer to %ld PINGs over %ld s", caller,
               SOCKET, settings[HUNG_PINGS].value,
               (settings[HUNG_PINGS].value - 1) * settings[HUNG_PING_INTERVAL].value);
        end_hung_daemon(geteuid());
    }
    const int status = wait_for(start_daemon());
    close(lock);
    return WIFEXITED(status) ? WEXITSTATUS(status) : STATUS_FAILED;
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

    /* The caller may stop or end this process, its own update; what holds the
     * lock every other user's update waits on is the engine account's alone,
     * and ends with this process. */
    const pid_t parent = getpid();
    update_child = fork();
    if (update_child < 0)
        die(STATUS_FAILED, "fork: %s", strerror(errno));
    if (update_child == 0) {
        update_child = 0;
        const uid_t account = geteuid();
        if (setresuid(account, account, account) != 0 || prctl(PR_SET_PDEATHSIG, SIGTERM) != 0)
            die(STATUS_FAILED, "cannot become %s alone: %s", KORVANE_ACCOUNT, strerror(errno));
        if (getppid() != parent)
            exit(STATUS_FAILED);
        take_lock(UPDATE_LOCK, "another update of the definitions");
        update_child = fork();
        if (update_child < 0)
            die(STATUS_FAILED, "fork: %s", strerror(errno));
        if (update_child == 0) {
            execv(argv[0], argv);
            die(STATUS_FAILED, "%s: %s", argv[0], strerror(errno));
        }
        const int status = wait_for(update_child);
        /* Official daily definitions now carry the version; our set stays
         * loaded under a name that does not compete with them for it. */
        struct stat st;
        if (stat(DB_DIR "/daily.cud", &st) == 0
            && (stat(DB_DIR "/daily.cvd", &st) == 0 || stat(DB_DIR "/daily.cld", &st) == 0))
            rename(DB_DIR "/daily.cud", DB_DIR "/korvane.cud");
        if (WIFSIGNALED(status)) {
            signal(WTERMSIG(status), SIG_DFL);
            raise(WTERMSIG(status));
        }
        exit(WIFEXITED(status) ? WEXITSTATUS(status) : STATUS_FAILED);
    }
    const int status = wait_for(update_child);

    if (WIFSIGNALED(status)) {
        signal(WTERMSIG(status), SIG_DFL);
        raise(WTERMSIG(status));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : STATUS_FAILED;
}

int main(int argc, char **argv)
{
    shed_caller_state();
    if (argc < 2)
        die(STATUS_BAD_OPTION, "usage: engine-helper clamd | freshclam [OPTION...]");
    /* Nothing of the caller's environment reaches the engine account. */
    clearenv();
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    umask(022);
    if (chdir("/") != 0)
        die(STATUS_FAILED, "chdir /: %s", strerror(errno));
    openlog("engine-helper", LOG_PID, LOG_AUTHPRIV);
    char caller[96];
    const struct passwd *user = getpwuid(getuid());
    snprintf(caller, sizeof caller, "user %s (uid %d)", user ? user->pw_name : "?", (int)getuid());

    if (strcmp(argv[1], "clamd") == 0) {
        if (argc != 2)
            die(STATUS_BAD_OPTION, "the shared daemon takes no options");
        require_root_owned_config(CLAMD_CONF);
        read_settings();
        become_engine_account(0);
        return run_daemon(caller);
    }
    if (strcmp(argv[1], "freshclam") == 0) {
        require_root_owned_config(FRESHCLAM_CONF);
        read_settings();
        become_engine_account(1);
        return run_update(argv + 2, argc - 2);
    }
    die(STATUS_BAD_OPTION, "unknown action %s", argv[1]);
}
