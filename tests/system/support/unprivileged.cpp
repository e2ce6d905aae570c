#include "tests/system/support/unprivileged.h"

#include <grp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>

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
    for (const auto &entry :
         std::filesystem::recursive_directory_iterator(tree)) {
        give(entry.path());
    }
}

void become_user()
{
    if (geteuid() != 0) {
        return;
    }
    if (setgroups(0, nullptr) != 0 || setgid(NOBODY) != 0 ||
        setuid(NOBODY) != 0) {
        _exit(NOT_RUN);
    }
    // Another user's process has lost it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}
