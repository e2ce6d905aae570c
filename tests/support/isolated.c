// Runs a test in network, process and mount namespaces of its own, so that no
// other test, and nobody on the machine, can take its port, its path in the
// abstract namespace or its process number, and so that nothing that it
// started outlives it: isolated PROGRAM [ARGUMENT...]
//
// Where the machine allows no namespaces the program runs as it is.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#define NAMESPACES (CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWNS)

static int put(const char *path, const char *text)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    const ssize_t length = (ssize_t)strlen(text);
    const int result = fd >= 0 && write(fd, text, strlen(text)) == length;

    if (fd >= 0) {
        close(fd);
    }
    return result;
}

// Somebody who is not root is so in a user namespace of his own.
static int enter_as_user(void)
{
    const unsigned int uid = getuid();
    const unsigned int gid = getgid();
    char users[64];
    char groups[64];

    if (unshare(NAMESPACES | CLONE_NEWUSER) != 0) {
        return 0;
    }
    snprintf(users, sizeof users, "%u %u 1\n", uid, uid);
    snprintf(groups, sizeof groups, "%u %u 1\n", gid, gid);
    return put("/proc/self/setgroups", "deny") &&
           put("/proc/self/uid_map", users) &&
           put("/proc/self/gid_map", groups);
}

static int enter(void)
{
    return unshare(NAMESPACES) == 0 || (errno == EPERM && enter_as_user());
}

static int raise_loopback(void)
{
    struct ifreq request = {.ifr_name = "lo", .ifr_flags = IFF_UP};
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int result = fd >= 0 && ioctl(fd, SIOCSIFFLAGS, &request) == 0;

    if (fd >= 0) {
        close(fd);
    }
    return result;
}

// Process numbers are read from /proc: it has to show those of the namespace.
static int mount_own_proc(void)
{
    return mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) == 0 &&
           mount("proc", "/proc", "proc", 0, NULL) == 0;
}

static int wait_for(pid_t wanted)
{
    for (;;) {
        int status = 0;
        const pid_t pid = wait(&status);
        if (pid == wanted) {
            return WIFEXITED(status) ? WEXITSTATUS(status)
                                     : 128 + WTERMSIG(status);
        }
        if (pid < 0 && errno != EINTR) {
            return 125;
        }
    }
}

// The first process of a namespace takes no signal that it has no handler for,
// and orphans become its children: the test itself must not be it.
static int run_as_init(char **arguments)
{
    pid_t pid;

    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!mount_own_proc()) {
        perror("isolated: /proc");
        return 125;
    }
    pid = fork();
    if (pid == 0) {
        execv(arguments[0], arguments);
        perror(arguments[0]);
        _exit(126);
    }
    return pid < 0 ? 125 : wait_for(pid);
}

int main(int argc, char **argv)
{
    pid_t pid;

    if (argc < 2) {
        fprintf(stderr, "usage: isolated PROGRAM [ARGUMENT...]\n");
        return 125;
    }
    if (!enter() || !raise_loopback()) {
        execv(argv[1], argv + 1);
        perror(argv[1]);
        return 126;
    }
    pid = fork();
    if (pid == 0) {
        _exit(run_as_init(argv + 1));
    }
    return pid < 0 ? 125 : wait_for(pid);
}
