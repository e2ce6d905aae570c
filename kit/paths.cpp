// The session service makes a path with the process's file-creation mask of
// that moment, and every tty_setenv() of the daemon's makes that 0. Whoever
// then sets the mask again meets another thread inside tty_setenv(), whose file
// needs the 0. So it is left alone: a path gets its mode as soon as it is made,
// and of those who came before that, peers whom the mode keeps out are refused.
#include "kit/paths.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr mode_t OWNER_WRITES = 0200;
constexpr mode_t GROUP_WRITES = 0020;
constexpr mode_t OTHERS_WRITE = 0002;
constexpr size_t DIRECTORY_SIZE = 64;

static mode_t g_mode;
static int g_watch = -1;

int kit_paths_descriptor(void)
{
    return g_watch;
}

void kit_paths_watch(const kit_service *service)
{
    char directory[DIRECTORY_SIZE] = ".";

    if (service->path == nullptr || g_watch < 0) {
        return;
    }
    const char *slash = strrchr(service->path, '/');
    if (slash != nullptr) {
        const size_t length = static_cast<size_t>(slash - service->path) + 1;
        memcpy(directory, service->path, length);
        directory[length] = '\0';
    }
    inotify_add_watch(g_watch, directory, IN_CREATE | IN_ONLYDIR);
}

void kit_paths_begin(mode_t mode)
{
    g_mode = mode;
    umask(0777 & ~mode);
    if (g_watch < 0) {
        g_watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    }
    const kit_node *node = nullptr;
    while ((node = kit_node_after(node)) != nullptr) {
        kit_paths_watch(node->service);
    }
}

// By its descriptor: somebody who can change the directory could put a link in
// the path's place. Without /proc it stays as it is, and those whom the mode
// keeps out are refused all the same.
static void set_mode(int fd)
{
    char name[sizeof "/proc/self/fd/" + 11];

    (void)snprintf(name, sizeof name, "/proc/self/fd/%d", fd);
    const int ignored = chmod(name, g_mode);
    static_cast<void>(ignored);
}

// The path's owner, whom its mode names; false when there is no such path. What
// is no socket of this process's user is not touched.
static bool give_mode(const char *path, struct stat *status)
{
    const int fd = open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);

    if (fd < 0) {
        return false;
    }
    const bool own = fstat(fd, status) == 0 && S_ISSOCK(status->st_mode) &&
                     status->st_uid == geteuid();
    if (own && (status->st_mode & ALLPERMS) != g_mode) {
        set_mode(fd);
    }
    close(fd);
    return own;
}

// Something was made in one of the directories: which path it was costs as much
// to find out as to look at them all.
void kit_paths_mend(void)
{
    char events[4096];
    struct stat status;
    const kit_node *node = nullptr;

    while (read(g_watch, events, sizeof events) > 0) {
    }
    while ((node = kit_node_after(node)) != nullptr) {
        if (node->service->path != nullptr) {
            give_mode(node->service->path, &status);
        }
    }
}

static bool in_group(const kit_entry *entry, gid_t group)
{
    for (size_t i = 0; i < entry->group_count; i++) {
        if (entry->groups[i] == group) {
            return true;
        }
    }
    return entry->session.peer_gid == group;
}

bool kit_paths_admit(const kit_entry *entry)
{
    struct stat status;
    const uid_t peer = entry->session.peer_uid;

    if (entry->family != AF_UNIX) {
        return true;
    }
    if (!give_mode(entry->session.service->path, &status)) {
        status.st_uid = geteuid();
        status.st_gid = getegid();
    }
    if (peer == 0) {
        return true;
    }
    if (peer == status.st_uid) {
        return (g_mode & OWNER_WRITES) != 0;
    }
    return (g_mode & (in_group(entry, status.st_gid) ? GROUP_WRITES
                                                     : OTHERS_WRITE)) != 0;
}
