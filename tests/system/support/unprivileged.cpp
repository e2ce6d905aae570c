#include "tests/system/support/unprivileged.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

// The user nobody, who has no files and no processes on any machine.
constexpr uid_t NOBODY = 65534;
constexpr int NOT_RUN = 126;

static void give(const std::string &name)
{
    const int ignored = lchown(name.c_str(), NOBODY, NOBODY);
    static_cast<void>(ignored);
}

void own_by_user(const std::string &tree)
{
    if (geteuid() != 0) {
        return;
    }
    give(tree);
    for (const auto &entry : fs::recursive_directory_iterator(tree)) {
        give(entry.path());
    }
}

// The first directory above it that the user cannot enter; empty when there is
// none.
static fs::path closed_above(const fs::path &directory)
{
    fs::path above = "/";

    for (const fs::path &part : directory.relative_path()) {
        above /= part;
        const fs::perms others = fs::status(above).permissions();
        if ((others & fs::perms::others_exec) == fs::perms::none) {
            return above;
        }
    }
    return "";
}

// A tree may have been built where only root can go: in a mount namespace of
// this process's own it lies at the same place, with nothing else around it.
static void open_way_to(const fs::path &directory)
{
    const fs::path closed = closed_above(directory);
    std::error_code error;

    if (closed.empty()) {
        return;
    }
    umask(022);
    const bool own =
        unshare(CLONE_NEWNS) == 0 &&
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    // One of the old namespace could not be shown in the new one.
    const int kept = open(directory.c_str(), O_PATH | O_CLOEXEC);
    const std::string same = "/proc/self/fd/" + std::to_string(kept);
    if (!own || mount("none", closed.c_str(), "tmpfs", 0, "mode=0755") != 0 ||
        (fs::create_directories(directory, error), error) ||
        mount(same.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) !=
            0) {
        _exit(NOT_RUN);
    }
    close(kept);
}

void become_user()
{
    if (geteuid() != 0) {
        return;
    }
    open_way_to(TTYLINE_BUILD_DIRECTORY);
    if (setgroups(0, nullptr) != 0 || setgid(NOBODY) != 0 ||
        setuid(NOBODY) != 0) {
        _exit(NOT_RUN);
    }
    // Another user's process has lost it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}
