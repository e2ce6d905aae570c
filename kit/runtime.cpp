// Whether the runtime directory can be trusted. Whoever can change one of its
// components can put links where the programs of the device, root's among them,
// write their files.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ttyline/kit.h>

#include "kit/error.h"

constexpr mode_t OWN_MODE = 0700;
constexpr int MOST_LINKS = 8;

static bool check_path(const char *path, int links);

static bool writable_by_others(const struct stat *status)
{
    return (status->st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// In a sticky directory of root's nobody can replace what is another's.
static bool sticky_of_root(const struct stat *status)
{
    return status->st_uid == 0 && (status->st_mode & S_ISVTX) != 0;
}

static bool check_directory(const char *path, const struct stat *status)
{
    if (!S_ISDIR(status->st_mode)) {
        kit_fail("%s is no directory", path);
        return false;
    }
    if (status->st_uid != 0 && status->st_uid != geteuid()) {
        kit_fail("%s belongs to user %u", path, status->st_uid);
        return false;
    }
    if (writable_by_others(status) && !sticky_of_root(status)) {
        kit_fail("%s can be written by others (mode %04o)", path,
                 status->st_mode & 07777u);
        return false;
    }
    return true;
}

static bool look_at(const char *path, int (*look)(const char *, struct stat *),
                    struct stat *status)
{
    if (look(path, status) == 0) {
        return true;
    }
    kit_fail("%s: %s", path, strerror(errno));
    return false;
}

// A link is trusted when it is root's and lies where only root can put it; what
// it leads to is looked at like any other path.
// NOLINTNEXTLINE(misc-no-recursion): as deep as MOST_LINKS says.
static bool check_link(const char *path, const struct stat *status,
                       const struct stat *parent, int links)
{
    char target[PATH_MAX];

    if (status->st_uid != 0 || parent->st_uid != 0 ||
        writable_by_others(parent)) {
        kit_fail("%s is a link that others could have made", path);
        return false;
    }
    if (links == MOST_LINKS || realpath(path, target) == nullptr) {
        kit_fail("%s leads nowhere", path);
        return false;
    }
    return check_path(target, links + 1);
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as MOST_LINKS says.
static bool check_component(const char *path, struct stat *parent, int links)
{
    struct stat status;

    if (!look_at(path, lstat, &status)) {
        return false;
    }
    if (S_ISLNK(status.st_mode)) {
        return check_link(path, &status, parent, links) &&
               look_at(path, stat, parent);
    }
    *parent = status;
    return check_directory(path, &status);
}

// From the root down, as a component says something only when all above it
// can be trusted.
// NOLINTNEXTLINE(misc-no-recursion): as deep as MOST_LINKS says.
static bool check_path(const char *path, int links)
{
    char prefix[PATH_MAX];
    struct stat parent = {};

    if (!check_component("/", &parent, links)) {
        return false;
    }
    for (const char *end = path; *end != '\0';) {
        end += strspn(end, "/");
        end += strcspn(end, "/");
        (void)snprintf(prefix, sizeof prefix, "%.*s",
                       static_cast<int>(end - path), path);
        if (!check_component(prefix, &parent, links)) {
            return false;
        }
    }
    return true;
}

// The two that are ours are made when they are missing, for nobody else.
static bool check_own(const char *directory, const char *name)
{
    char path[PATH_MAX];
    struct stat status;

    if (snprintf(path, sizeof path, "%s%s", directory, name) >=
        static_cast<int>(sizeof path)) {
        kit_fail("%s is too long", directory);
        return false;
    }
    if (mkdir(path, OWN_MODE) != 0 && errno != EEXIST) {
        kit_fail("%s: %s", path, strerror(errno));
        return false;
    }
    if (!check_path(path, 0)) {
        return false;
    }
    if (!look_at(path, stat, &status)) {
        return false;
    }
    if (status.st_uid != geteuid()) {
        kit_fail("%s does not belong to user %u", path, geteuid());
        return false;
    }
    return true;
}

static bool absolute(const char *path, char *out)
{
    size_t length = 0;

    if (path[0] != '/') {
        if (getcwd(out, PATH_MAX) == nullptr) {
            kit_fail("the working directory of %s: %s", path, strerror(errno));
            return false;
        }
        length = strlen(out);
    }
    if (snprintf(out + length, PATH_MAX - length, "%s%s", length > 0 ? "/" : "",
                 path) >= static_cast<int>(PATH_MAX - length)) {
        kit_fail("%s is too long", path);
        return false;
    }
    return true;
}

int kit_runtime_check(void)
{
    const char *prefix = getenv("TMPDIR");
    char directory[PATH_MAX];

    // The libraries put an empty one before "/mng/tty" too.
    if (prefix == nullptr || prefix[0] == '\0') {
        prefix = "/";
    }
    return absolute(prefix, directory) && check_path(directory, 0) &&
                   check_own(directory, "/mng") &&
                   check_own(directory, "/mng/tty")
               ? 0
               : -1;
}
