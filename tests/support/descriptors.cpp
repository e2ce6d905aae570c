#include "tests/support/descriptors.h"

#include <dirent.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

namespace support
{

// The numbers among the names in a directory, without the descriptor that
// reads it.
static std::vector<int> numbers_in(const char *path)
{
    std::vector<int> found;
    DIR *directory = opendir(path);

    if (directory == nullptr) {
        return found;
    }
    while (const dirent *entry = readdir(directory)) {
        char *end;
        const long number = strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0') {
            found.push_back(static_cast<int>(number));
        }
    }
    const int own = dirfd(directory);
    if (std::string(path) == "/proc/self/fd") {
        found.erase(std::remove(found.begin(), found.end(), own), found.end());
    }
    closedir(directory);
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<std::string> open_descriptors()
{
    std::vector<std::string> found;

    for (const int fd : numbers_in("/proc/self/fd")) {
        char target[PATH_MAX];
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        const ssize_t length = readlink(link.c_str(), target, sizeof target);
        const std::string name(target,
                               length > 0 ? static_cast<size_t>(length) : 0);
        found.push_back(std::to_string(fd) + " -> " + name);
    }
    return found;
}

static pid_t parent_of(pid_t pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    FILE *file = fopen(path.c_str(), "re");
    int parent = -1;

    if (file == nullptr) {
        return -1;
    }
    // The name in parentheses may hold anything but is at most 64 bytes.
    if (fscanf(file, "%*d (%*64[^)]) %*c %d", &parent) != 1) {
        parent = -1;
    }
    fclose(file);
    return parent;
}

std::vector<pid_t> children()
{
    std::vector<pid_t> found;

    for (const pid_t pid : numbers_in("/proc")) {
        if (parent_of(pid) == getpid()) {
            found.push_back(pid);
        }
    }
    return found;
}

} // namespace support
