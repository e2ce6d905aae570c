// The rules lie in a fixed table that a call reads without a lock and without
// memory of its own: malloc() is among the calls, and so are those that
// signal handlers do.
#include "tests/support/fault.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/select.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <type_traits>

// Where a long has 32 bits the headers turn calls that know times or offsets
// into others, which are what is to be wrapped.
#if __SIZEOF_LONG__ < 8
#define __real_open __real_open64
#define __wrap_open __wrap_open64
#define __real_truncate __real_truncate64
#define __wrap_truncate __wrap_truncate64
#define __real_ftruncate __real_ftruncate64
#define __wrap_ftruncate __wrap_ftruncate64
#define __real_select __real___select64
#define __wrap_select __wrap___select64
#define __real_setsockopt __real___setsockopt64
#define __wrap_setsockopt __wrap___setsockopt64
#define __real_getsockopt __real___getsockopt64
#define __wrap_getsockopt __wrap___getsockopt64
#define __real_recvmsg __real___recvmsg64
#define __wrap_recvmsg __wrap___recvmsg64
#define __real_sendmsg __real___sendmsg64
#define __wrap_sendmsg __wrap___sendmsg64
#define __real_lstat __real___lstat64_time64
#define __wrap_lstat __wrap___lstat64_time64
#define __real_fcntl __real___fcntl_time64
#define __wrap_fcntl __wrap___fcntl_time64
#define __real_ioctl __real___ioctl_time64
#define __wrap_ioctl __wrap___ioctl_time64
#define __real_prctl __real___prctl_time64
#define __wrap_prctl __wrap___prctl_time64
#define __real_fstat __real___fstat64_time64
#define __wrap_fstat __wrap___fstat64_time64
#define __real_stat __real___stat64_time64
#define __wrap_stat __wrap___stat64_time64
#define __real_clock_gettime __real___clock_gettime64
#define __wrap_clock_gettime __wrap___clock_gettime64
#endif

namespace fault
{

// Every wrapped call; fault.cmake names the same ones to the linker.
// clang-format off
#define FAULT_CALLS(X) \
    X(socket) X(setsockopt) X(bind) X(listen) X(connect) X(accept4) X(recv) \
    X(read) X(write) X(open) X(close) X(shutdown) X(fcntl) X(ioctl) X(stat) X(truncate) \
    X(ftruncate) X(rename) X(mkdir) X(unlink) X(symlink) X(fork) \
    X(socketpair) X(posix_openpt) X(grantpt) X(unlockpt) X(ptsname_r) \
    X(tcgetattr) X(tcsetattr) X(dup2) X(dup3) X(setsid) X(prctl) X(execvp) X(waitpid) \
    X(kill) X(select) X(poll) X(malloc) X(calloc) X(strdup) X(setenv) \
    X(getsockname) X(getpeername) X(pthread_mutexattr_init) \
    X(pthread_mutexattr_settype) X(pthread_mutex_init) \
    X(pthread_rwlockattr_init) X(pthread_rwlock_init) X(pthread_sigmask) \
    X(sigfillset) X(sigaction) X(access) X(usleep) X(clock_gettime) \
    X(getppid) X(faccessat) X(fstat) X(chdir) X(chmod) X(epoll_create1) X(epoll_ctl) \
    X(epoll_wait) X(eventfd) X(fchmod) \
    X(fchown) X(getcwd) X(getgrnam) X(getpwnam) X(getpwuid) X(getrandom) \
    X(getsockopt) X(initgroups) X(inotify_add_watch) X(inotify_init1) \
    X(lstat) X(opendir) X(pipe2) X(pthread_create) X(putenv) \
    X(realloc) X(realpath) X(recvmsg) X(send) X(sendmsg) X(sendto) X(setgid) \
    X(setuid) X(signalfd) X(syscall) X(waitid)
// clang-format on

#define FAULT_ID(name) call_##name,
enum call { FAULT_CALLS(FAULT_ID) CALL_COUNT };

#define FAULT_NAME(name) #name,
static const char *const names[CALL_COUNT] = {FAULT_CALLS(FAULT_NAME)};

enum action { DO, FAIL, RESULT, SHORTEN, RUN, NAME };

struct rule {
    std::atomic<bool> armed;
    std::atomic<int> seen;
    call id;
    action what;
    int first;
    int times;
    long value;
    void (*before)();
    filter where;
    char path[128];
};

constexpr int RULE_COUNT = 32;

static rule rules[RULE_COUNT];
// The address that name() gives; one at a time.
static char given_name[sizeof(struct sockaddr_storage)];
static size_t given_length;
static std::atomic<int> rule_count;
static std::atomic<int> counts[CALL_COUNT];
static thread_local bool inside;
static void (*replacements[CALL_COUNT])();
static std::atomic<bool> replacing_now;

// What a call is about, as far as its arguments say so.
struct subject {
    int fd = -1;
    const char *path = nullptr;
    long what = -1;
};

// What to do with a call.
struct verdict {
    action what = DO;
    long value = 0;
};

static call find_call(const char *name)
{
    for (int i = 0; i < CALL_COUNT; i++) {
        if (strcmp(names[i], name) == 0) {
            return static_cast<call>(i);
        }
    }
    fprintf(stderr, "fault: %s() is not among the wrapped calls\n", name);
    abort();
}

static bool path_matches(const rule *candidate, const subject &about)
{
    char link[64];
    char target[512];

    if (about.path != nullptr) {
        return strstr(about.path, candidate->path) != nullptr;
    }
    (void)snprintf(link, sizeof link, "/proc/self/fd/%d", about.fd);
    const ssize_t length = readlink(link, target, sizeof target - 1);
    if (length < 0) {
        return false;
    }
    target[length] = '\0';
    return strstr(target, candidate->path) != nullptr;
}

static bool applies(const rule *candidate, call id, const subject &about)
{
    const filter &where = candidate->where;

    return candidate->armed.load() && candidate->id == id &&
           (where.fd == -1 || where.fd == about.fd) &&
           (where.what == -1 || where.what == about.what) &&
           (where.path == nullptr || path_matches(candidate, about));
}

static verdict judge(call id, const subject &about)
{
    verdict decided;

    if (inside) {
        return decided;
    }
    const int saved_errno = errno;
    inside = true;
    counts[id].fetch_add(1);
    for (int i = 0; i < rule_count.load(); i++) {
        rule *candidate = &rules[i];
        if (!applies(candidate, id, about)) {
            continue;
        }
        const int nth = candidate->seen.fetch_add(1) + 1;
        if (decided.what == DO && candidate->what != DO &&
            nth >= candidate->first &&
            nth - candidate->first < candidate->times) {
            decided = {candidate->what, candidate->value};
            if (candidate->what == RUN) {
                candidate->before();
            }
        }
    }
    inside = false;
    errno = saved_errno;
    return decided;
}

static int arm(const char *name, action what, int nth, int times, long value,
               void (*before)(), const filter &where)
{
    const call id = find_call(name);
    const int handle = rule_count.load();

    if (handle == RULE_COUNT) {
        fprintf(stderr, "fault: no room for another rule\n");
        abort();
    }
    rule *made = &rules[handle];
    made->seen = 0;
    made->id = id;
    made->what = what;
    made->first = nth;
    made->times = times;
    made->value = value;
    made->before = before;
    made->where = where;
    (void)snprintf(made->path, sizeof made->path, "%s",
                   where.path != nullptr ? where.path : "");
    made->armed = true;
    rule_count = handle + 1;
    return handle;
}

filter only_path(const char *part)
{
    filter where;
    where.path = part;
    return where;
}

filter only_fd(int fd)
{
    filter where;
    where.fd = fd;
    return where;
}

filter only_what(long what)
{
    filter where;
    where.what = what;
    return where;
}

int fail(const char *name, int nth, int error, int times, const filter &where)
{
    return arm(name, FAIL, nth, times, error, nullptr, where);
}

int result(const char *name, int nth, long value, int times,
           const filter &where)
{
    return arm(name, RESULT, nth, times, value, nullptr, where);
}

int shorten(const char *name, int nth, size_t bytes, int times,
            const filter &where)
{
    return arm(name, SHORTEN, nth, times, static_cast<long>(bytes), nullptr,
               where);
}

int run(const char *name, int nth, void (*before)(), int times,
        const filter &where)
{
    return arm(name, RUN, nth, times, 0, before, where);
}

int name(const char *name, int nth, const void *address, size_t length)
{
    given_length = length < sizeof given_name ? length : sizeof given_name;
    memcpy(given_name, address, given_length);
    return arm(name, NAME, nth, 1, 0, nullptr, {});
}

int watch(const char *name, const filter &where)
{
    return arm(name, DO, 1, ALWAYS, 0, nullptr, where);
}

int seen(int handle)
{
    return rules[handle].seen.load();
}

int calls(const char *name)
{
    return counts[find_call(name)].load();
}

void reset()
{
    rule_count = 0;
    for (rule &old : rules) {
        old.armed = false;
        old.seen = 0;
    }
    for (std::atomic<int> &count : counts) {
        count = 0;
    }
}

void replace_with(const char *name, void (*function)())
{
    replacements[find_call(name)] = function;
}

void replacing(bool on)
{
    replacing_now = on;
}

template <typename T>
static T *replacement(call id)
{
    return replacing_now ? reinterpret_cast<T *>(replacements[id]) : nullptr;
}

static subject about_fd(int fd, long what = -1)
{
    subject about;
    about.fd = fd;
    about.what = what;
    return about;
}

static subject about_path(const char *path, long what = -1)
{
    subject about;
    about.path = path;
    about.what = what;
    return about;
}

static subject about_what(long what)
{
    subject about;
    about.what = what;
    return about;
}

template <typename T>
static T scripted(const verdict &decided)
{
    if constexpr (std::is_pointer_v<T>) {
        if (decided.what == FAIL) {
            errno = static_cast<int>(decided.value);
        }
        return nullptr;
    } else {
        if (decided.what == RESULT) {
            return static_cast<T>(decided.value);
        }
        errno = static_cast<int>(decided.value);
        return static_cast<T>(-1);
    }
}

static bool is_scripted(const verdict &decided)
{
    return decided.what == FAIL || decided.what == RESULT;
}

static int give_name(struct sockaddr *name, socklen_t *length)
{
    memcpy(name, given_name, given_length < *length ? given_length : *length);
    *length = static_cast<socklen_t>(given_length);
    return 0;
}

static size_t shortened(const verdict &decided, size_t length)
{
    const size_t limit = static_cast<size_t>(decided.value);

    return decided.what == SHORTEN && limit < length ? limit : length;
}

} // namespace fault

using fault::about_fd;
using fault::about_path;
using fault::about_what;

#define FAULT_DECLARE(type, name, ...)                                         \
    extern "C" type __real_##name(__VA_ARGS__);                                \
    extern "C" type __wrap_##name(__VA_ARGS__);

#define FAULT_REPLACED(name, arguments)                                        \
    if (auto *instead =                                                        \
            fault::replacement<decltype(__wrap_##name)>(fault::call_##name)) { \
        return instead arguments;                                              \
    }

#define FAULT_ENTER(type, name, about)                                         \
    const fault::verdict decided = fault::judge(fault::call_##name, about);    \
    if (fault::is_scripted(decided)) {                                         \
        return fault::scripted<type>(decided);                                 \
    }

#define FAULT_WRAP(type, name, parameters, arguments, about)                   \
    extern "C" type __real_##name parameters;                                  \
    extern "C" type __wrap_##name parameters;                                  \
    extern "C" type __wrap_##name parameters                                   \
    {                                                                          \
        FAULT_REPLACED(name, arguments)                                        \
        FAULT_ENTER(type, name, about)                                         \
        return __real_##name arguments;                                        \
    }

// These tell the address of one end of a connection.
#define FAULT_WRAP_NAME(name)                                                  \
    FAULT_DECLARE(int, name, int fd, struct sockaddr *to, socklen_t *length)   \
    int __wrap_##name(int fd, struct sockaddr *to, socklen_t *length)          \
    {                                                                          \
        FAULT_REPLACED(name, (fd, to, length))                                 \
        FAULT_ENTER(int, name, about_fd(fd))                                   \
        return decided.what == fault::NAME ? fault::give_name(to, length)      \
                                           : __real_##name(fd, to, length);    \
    }

// These return their error and leave errno alone.
#define FAULT_WRAP_ERROR(name, parameters, arguments, about)                   \
    extern "C" int __real_##name parameters;                                   \
    extern "C" int __wrap_##name parameters;                                   \
    extern "C" int __wrap_##name parameters                                    \
    {                                                                          \
        FAULT_REPLACED(name, arguments)                                        \
        const fault::verdict decided =                                         \
            fault::judge(fault::call_##name, about);                           \
        if (fault::is_scripted(decided)) {                                     \
            return static_cast<int>(decided.value);                            \
        }                                                                      \
        return __real_##name arguments;                                        \
    }

// clang-format off
FAULT_WRAP(int, socket, (int domain, int type, int protocol),
           (domain, type, protocol), about_what(domain))
FAULT_WRAP(int, setsockopt,
           (int fd, int level, int option, const void *value, socklen_t len),
           (fd, level, option, value, len), about_fd(fd, option))
FAULT_WRAP(int, bind, (int fd, const struct sockaddr *to, socklen_t len),
           (fd, to, len), about_fd(fd))
FAULT_WRAP(int, listen, (int fd, int backlog), (fd, backlog), about_fd(fd))
FAULT_WRAP(int, connect, (int fd, const struct sockaddr *to, socklen_t len),
           (fd, to, len), about_fd(fd, static_cast<long>(len)))
FAULT_WRAP(int, accept4,
           (int fd, struct sockaddr *peer, socklen_t *len, int flags),
           (fd, peer, len, flags), about_fd(fd, flags))
FAULT_WRAP(int, close, (int fd), (fd), about_fd(fd))
FAULT_WRAP(int, shutdown, (int fd, int how), (fd, how), about_fd(fd, how))
FAULT_WRAP(int, stat, (const char *path, struct stat *status), (path, status),
           about_path(path))
FAULT_WRAP(int, truncate, (const char *path, off_t length), (path, length),
           about_path(path))
FAULT_WRAP(int, ftruncate, (int fd, off_t length), (fd, length), about_fd(fd))
FAULT_WRAP(int, rename, (const char *from, const char *to), (from, to),
           about_path(from))
FAULT_WRAP(int, mkdir, (const char *path, mode_t mode), (path, mode),
           about_path(path))
FAULT_WRAP(int, unlink, (const char *path), (path), about_path(path))
FAULT_WRAP(int, symlink, (const char *target, const char *path),
           (target, path), about_path(path))
FAULT_WRAP(pid_t, fork, (void), (), {})
FAULT_WRAP(int, socketpair, (int domain, int type, int protocol, int *pair),
           (domain, type, protocol, pair), about_what(domain))
FAULT_WRAP(int, posix_openpt, (int flags), (flags), {})
FAULT_WRAP(int, grantpt, (int fd), (fd), about_fd(fd))
FAULT_WRAP(int, unlockpt, (int fd), (fd), about_fd(fd))
FAULT_WRAP(int, tcgetattr, (int fd, struct termios *modes), (fd, modes),
           about_fd(fd))
FAULT_WRAP(int, tcsetattr, (int fd, int when, const struct termios *modes),
           (fd, when, modes), about_fd(fd, when))
FAULT_WRAP(int, dup2, (int from, int to), (from, to), about_fd(from, to))
FAULT_WRAP(int, dup3, (int from, int to, int flags), (from, to, flags),
           about_fd(from, to))
FAULT_WRAP(pid_t, setsid, (void), (), {})
FAULT_WRAP(int, execvp, (const char *file, char *const *arguments),
           (file, arguments), about_path(file))
FAULT_WRAP(pid_t, waitpid, (pid_t pid, int *status, int options),
           (pid, status, options), about_what(pid))
FAULT_WRAP(int, kill, (pid_t pid, int number), (pid, number),
           about_what(number))
FAULT_WRAP(int, select,
           (int count, fd_set *in, fd_set *out, fd_set *other,
            struct timeval *limit),
           (count, in, out, other, limit), {})
FAULT_WRAP(int, poll, (struct pollfd *set, nfds_t count, int limit),
           (set, count, limit), about_fd(count > 0 ? set[0].fd : -1))
FAULT_WRAP(void *, malloc, (size_t size), (size), {})
FAULT_WRAP(void *, calloc, (size_t count, size_t size), (count, size), {})
FAULT_WRAP(char *, strdup, (const char *text), (text), {})
FAULT_WRAP(int, setenv, (const char *name, const char *value, int replace),
           (name, value, replace), about_path(name))
FAULT_WRAP_NAME(getsockname)
FAULT_WRAP_NAME(getpeername)
FAULT_WRAP(int, sigfillset, (sigset_t *set), (set), {})
FAULT_WRAP(int, sigaction,
           (int number, const struct sigaction *action, struct sigaction *old),
           (number, action, old), about_what(number))
FAULT_WRAP(int, access, (const char *path, int mode), (path, mode),
           about_path(path))
FAULT_WRAP(int, faccessat, (int at, const char *path, int mode, int flags),
           (at, path, mode, flags), about_path(path, flags))
FAULT_WRAP(int, fstat, (int fd, struct stat *status), (fd, status),
           about_fd(fd))
FAULT_WRAP(int, usleep, (useconds_t microseconds), (microseconds), {})
FAULT_WRAP(int, clock_gettime, (clockid_t clock, struct timespec *now),
           (clock, now), about_what(clock))
FAULT_WRAP(pid_t, getppid, (void), (), {})
FAULT_WRAP(int, chdir, (const char *path), (path), about_path(path))
FAULT_WRAP(int, chmod, (const char *path, mode_t mode), (path, mode),
           about_path(path))
FAULT_WRAP(int, epoll_create1, (int flags), (flags), {})
FAULT_WRAP(int, epoll_ctl,
           (int set, int what, int fd, struct epoll_event *event),
           (set, what, fd, event), about_fd(fd, what))
FAULT_WRAP(int, epoll_wait,
           (int set, struct epoll_event *events, int most, int limit),
           (set, events, most, limit), about_fd(set))
FAULT_WRAP(int, eventfd, (unsigned int count, int flags), (count, flags), {})
FAULT_WRAP(int, fchmod, (int fd, mode_t mode), (fd, mode), about_fd(fd))
FAULT_WRAP(int, fchown, (int fd, uid_t user, gid_t group), (fd, user, group),
           about_fd(fd))
FAULT_WRAP(char *, getcwd, (char *path, size_t size), (path, size), {})
FAULT_WRAP(struct group *, getgrnam, (const char *name), (name),
           about_path(name))
FAULT_WRAP(struct passwd *, getpwnam, (const char *name), (name),
           about_path(name))
FAULT_WRAP(struct passwd *, getpwuid, (uid_t user), (user), {})
FAULT_WRAP(ssize_t, getrandom, (void *bytes, size_t size, unsigned int flags),
           (bytes, size, flags), {})
FAULT_WRAP(int, getsockopt,
           (int fd, int level, int option, void *value, socklen_t *len),
           (fd, level, option, value, len), about_fd(fd, option))
FAULT_WRAP(int, initgroups, (const char *user, gid_t group), (user, group),
           about_path(user))
FAULT_WRAP(int, inotify_add_watch, (int fd, const char *path, uint32_t events),
           (fd, path, events), about_path(path))
FAULT_WRAP(int, inotify_init1, (int flags), (flags), {})
FAULT_WRAP(int, lstat, (const char *path, struct stat *status), (path, status),
           about_path(path))
FAULT_WRAP(DIR *, opendir, (const char *path), (path), about_path(path))
FAULT_WRAP(int, pipe2, (int *ends, int flags), (ends, flags), {})
FAULT_WRAP(int, putenv, (char *entry), (entry), about_path(entry))
FAULT_WRAP(void *, realloc, (void *old, size_t size), (old, size), {})
FAULT_WRAP(char *, realpath, (const char *path, char *out), (path, out),
           about_path(path))
FAULT_WRAP(ssize_t, recvmsg, (int fd, struct msghdr *message, int flags),
           (fd, message, flags), about_fd(fd, flags))
FAULT_WRAP(ssize_t, sendmsg, (int fd, const struct msghdr *message, int flags),
           (fd, message, flags), about_fd(fd, flags))
FAULT_WRAP(ssize_t, sendto,
           (int fd, const void *bytes, size_t size, int flags,
            const struct sockaddr *to, socklen_t length),
           (fd, bytes, size, flags, to, length), about_fd(fd, flags))
FAULT_WRAP(int, setgid, (gid_t group), (group), {})
FAULT_WRAP(int, setuid, (uid_t user), (user), {})
FAULT_WRAP(int, signalfd, (int fd, const sigset_t *set, int flags),
           (fd, set, flags), about_fd(fd))
FAULT_WRAP(int, waitid, (idtype_t type, id_t id, siginfo_t *child, int options),
           (type, id, child, options), about_what(options))

FAULT_WRAP_ERROR(ptsname_r, (int fd, char *buf, size_t len), (fd, buf, len),
                 about_fd(fd))
FAULT_WRAP_ERROR(pthread_mutexattr_init, (pthread_mutexattr_t *attributes),
                 (attributes), {})
FAULT_WRAP_ERROR(pthread_mutexattr_settype,
                 (pthread_mutexattr_t *attributes, int type),
                 (attributes, type), {})
FAULT_WRAP_ERROR(pthread_mutex_init,
                 (pthread_mutex_t *mutex, const pthread_mutexattr_t *with),
                 (mutex, with), {})
FAULT_WRAP_ERROR(pthread_rwlockattr_init, (pthread_rwlockattr_t *attributes),
                 (attributes), {})
FAULT_WRAP_ERROR(pthread_rwlock_init,
                 (pthread_rwlock_t *lock, const pthread_rwlockattr_t *with),
                 (lock, with), {})
FAULT_WRAP_ERROR(pthread_sigmask,
                 (int how, const sigset_t *set, sigset_t *old),
                 (how, set, old), about_what(how))
FAULT_WRAP_ERROR(pthread_create,
                 (pthread_t *thread, const pthread_attr_t *with,
                  void *(*run)(void *), void *argument),
                 (thread, with, run, argument), {})
// clang-format on

FAULT_DECLARE(ssize_t, recv, int fd, void *buf, size_t len, int flags)
ssize_t __wrap_recv(int fd, void *buf, size_t len, int flags)
{
    FAULT_REPLACED(recv, (fd, buf, len, flags))
    FAULT_ENTER(ssize_t, recv, about_fd(fd, flags))
    return __real_recv(fd, buf, fault::shortened(decided, len), flags);
}

FAULT_DECLARE(ssize_t, send, int fd, const void *buf, size_t len, int flags)
ssize_t __wrap_send(int fd, const void *buf, size_t len, int flags)
{
    FAULT_REPLACED(send, (fd, buf, len, flags))
    FAULT_ENTER(ssize_t, send, about_fd(fd, flags))
    return __real_send(fd, buf, fault::shortened(decided, len), flags);
}

FAULT_DECLARE(ssize_t, read, int fd, void *buf, size_t len)
ssize_t __wrap_read(int fd, void *buf, size_t len)
{
    FAULT_REPLACED(read, (fd, buf, len))
    FAULT_ENTER(ssize_t, read, about_fd(fd))
    return __real_read(fd, buf, fault::shortened(decided, len));
}

FAULT_DECLARE(ssize_t, write, int fd, const void *buf, size_t len)
ssize_t __wrap_write(int fd, const void *buf, size_t len)
{
    FAULT_REPLACED(write, (fd, buf, len))
    FAULT_ENTER(ssize_t, write, about_fd(fd))
    return __real_write(fd, buf, fault::shortened(decided, len));
}

// The optional argument is read as the widest thing it can be and passed on,
// as the C library itself does.
#define FAULT_OPTIONAL(type, last)                                             \
    va_list list;                                                              \
    va_start(list, last);                                                      \
    const type optional = va_arg(list, type);                                  \
    va_end(list)

FAULT_DECLARE(int, open, const char *path, int flags, ...)
int __wrap_open(const char *path, int flags, ...)
{
    FAULT_OPTIONAL(mode_t, flags);
    FAULT_REPLACED(open, (path, flags, optional))
    FAULT_ENTER(int, open, about_path(path, flags))
    return __real_open(path, flags, optional);
}

FAULT_DECLARE(int, fcntl, int fd, int command, ...)
int __wrap_fcntl(int fd, int command, ...)
{
    FAULT_OPTIONAL(long, command);
    FAULT_REPLACED(fcntl, (fd, command, optional))
    FAULT_ENTER(int, fcntl, about_fd(fd, command))
    return __real_fcntl(fd, command, optional);
}

FAULT_DECLARE(int, ioctl, int fd, unsigned long request, ...)
int __wrap_ioctl(int fd, unsigned long request, ...)
{
    FAULT_OPTIONAL(long, request);
    FAULT_REPLACED(ioctl, (fd, request, optional))
    FAULT_ENTER(int, ioctl, about_fd(fd, static_cast<long>(request)))
    return __real_ioctl(fd, request, optional);
}

FAULT_DECLARE(int, prctl, int option, ...)
int __wrap_prctl(int option, ...)
{
    FAULT_OPTIONAL(long, option);
    FAULT_REPLACED(prctl, (option, optional))
    FAULT_ENTER(int, prctl, about_what(option))
    return __real_prctl(option, optional, 0L, 0L, 0L);
}

// As many arguments as there are registers for them: those that were not given
// are not looked at.
FAULT_DECLARE(long, syscall, long number, ...)
long __wrap_syscall(long number, ...)
{
    long given[5];
    va_list list;

    va_start(list, number);
    for (long &each : given) {
        each = va_arg(list, long);
    }
    va_end(list);
    FAULT_REPLACED(syscall,
                   (number, given[0], given[1], given[2], given[3], given[4]))
    FAULT_ENTER(long, syscall, about_what(number))
    return __real_syscall(number, given[0], given[1], given[2], given[3],
                          given[4]);
}
