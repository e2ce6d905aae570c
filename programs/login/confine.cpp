#include "programs/login/confine.h"

#include <asm/termbits.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <linux/sockios.h>
#include <pwd.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

// What a keeper does: wait, move bytes, look at and set its terminal, see its
// program end, and take memory. Sanitizers and a C library of another age make
// some of these calls instead of others.
static const int CALLS[] = {
    SCMP_SYS(read),          SCMP_SYS(write),           SCMP_SYS(recvfrom),
    SCMP_SYS(sendto),        SCMP_SYS(recvmsg),         SCMP_SYS(sendmsg),
    SCMP_SYS(poll),          SCMP_SYS(ppoll),           SCMP_SYS(close),
    SCMP_SYS(shutdown),      SCMP_SYS(waitid),          SCMP_SYS(wait4),
    SCMP_SYS(clock_gettime), SCMP_SYS(clock_nanosleep), SCMP_SYS(nanosleep),
    SCMP_SYS(madvise),       SCMP_SYS(munmap),          SCMP_SYS(brk),
    SCMP_SYS(futex),         SCMP_SYS(getpid),          SCMP_SYS(gettid),
    SCMP_SYS(getrandom),     SCMP_SYS(rt_sigprocmask),  SCMP_SYS(rt_sigreturn),
    SCMP_SYS(sigaltstack),   SCMP_SYS(restart_syscall), SCMP_SYS(sched_yield),
    SCMP_SYS(exit),          SCMP_SYS(exit_group)};
// What it asks of its terminal and of its connection. Another request would
// have the kernel send signals, to the keepers of other sessions too: they are
// the same user.
static const unsigned long REQUESTS[] = {TCGETS,     TCGETS2,     TCFLSH,
                                         TIOCSWINSZ, TIOCGPTPEER, SIOCOUTQ};
constexpr unsigned REQUEST = 1;    // of ioctl's arguments
constexpr unsigned PROTECTION = 2; // of mmap's arguments

static bool allow_requests(scmp_filter_ctx filter)
{
    for (const unsigned long request : REQUESTS) {
        const scmp_arg_cmp same = {REQUEST, SCMP_CMP_EQ, request, 0};
        if (seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, SCMP_SYS(ioctl), 1,
                                   &same) != 0) {
            return false;
        }
    }
    return true;
}

static bool fill(scmp_filter_ctx filter)
{
    for (const int call : CALLS) {
        if (seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, call, 0, nullptr) !=
            0) {
            return false;
        }
    }
    // Memory, but none that can be run.
    const scmp_arg_cmp unrunnable = {PROTECTION, SCMP_CMP_MASKED_EQ, PROT_EXEC,
                                     0};
    return allow_requests(filter) &&
           seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, SCMP_SYS(mmap), 1,
                                  &unrunnable) == 0;
}

// Sets no-new-privileges as well.
static bool filter_calls()
{
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_KILL_PROCESS);
    const bool loaded =
        filter != nullptr && fill(filter) && seccomp_load(filter) == 0;

    seccomp_release(filter);
    return loaded;
}

// What the filter forbids anyway stands on two feet.
static bool limit_resources()
{
    const rlimit none = {0, 0};

    return setrlimit(RLIMIT_NPROC, &none) == 0 &&
           setrlimit(RLIMIT_FSIZE, &none) == 0 &&
           setrlimit(RLIMIT_CORE, &none) == 0;
}

static bool change_user(const confinement *prepared)
{
    const bool rooted = chroot(prepared->root.c_str()) == 0;
    const bool inside = chdir("/") == 0;

    return rooted && inside && setgroups(0, nullptr) == 0 &&
           setresgid(prepared->gid, prepared->gid, prepared->gid) == 0 &&
           setresuid(prepared->uid, prepared->uid, prepared->uid) == 0 &&
           // Another user's process has lost it.
           prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;
}

bool confine_process(const confinement *prepared)
{
    const pid_t daemon = getppid();

    if ((prepared->changes_user && !change_user(prepared)) ||
        // It may have ended in between.
        getppid() != daemon || prctl(PR_SET_DUMPABLE, 0) != 0 ||
        !limit_resources() || !filter_calls()) {
        syslog(LOG_AUTHPRIV | LOG_ERR, "no confinement: %s", strerror(errno));
        return false;
    }
    return true;
}

// One that holds anything is somebody else's.
static std::string make_root(const std::string &path)
{
    std::error_code error;

    if (mkdir(path.c_str(), 0) != 0 && errno != EEXIST) {
        return path + ": " + strerror(errno);
    }
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != geteuid()) {
        return path + " is not this user's directory";
    }
    if (!std::filesystem::is_empty(path, error) || error) {
        return path + " is not empty";
    }
    return "";
}

static std::string find_user(const char *name, confinement *prepared)
{
    const passwd *user = getpwnam(name);

    if (user == nullptr) {
        return std::string("no such user: ") + name;
    }
    if (user->pw_uid == 0) {
        return std::string(name) + " has root's rights";
    }
    prepared->uid = user->pw_uid;
    prepared->gid = user->pw_gid;
    return "";
}

std::string confine_prepare(const char *user, confinement *prepared)
{
    const char *top = getenv("TMPDIR");

    prepared->changes_user = geteuid() == 0;
    if (!prepared->changes_user) {
        return "";
    }
    prepared->root = std::string(top != nullptr ? top : "") + "/mng/tty/.empty";
    const std::string why = find_user(user, prepared);
    return why.empty() ? make_root(prepared->root) : why;
}
