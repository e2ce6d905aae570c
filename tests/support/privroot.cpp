#include "tests/support/privroot.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace support
{

namespace fs = std::filesystem;

// The first step that failed; the steps after it are skipped.
struct progress {
    std::string failure;

    bool step(const std::string &what, bool done)
    {
        if (failure.empty() && !done) {
            failure = what + ": " + strerror(errno);
        }
        return failure.empty();
    }
};

static bool put_text(const char *path, const std::string &text)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);

    if (fd < 0) {
        return false;
    }
    const ssize_t written = write(fd, text.data(), text.size());
    close(fd);
    return written == static_cast<ssize_t>(text.size());
}

static std::string identity_map(unsigned int id)
{
    return "0 " + std::to_string(id) + " 1\n";
}

static void become_root_of_namespace(progress *to)
{
    const std::string users = identity_map(geteuid());
    const std::string groups = identity_map(getegid());

    if (geteuid() == 0) {
        to->step("unshare", unshare(CLONE_NEWNS) == 0);
        return;
    }
    if (to->step("unshare (a sanitizer's thread needs root instead)",
                 unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0)) {
        to->step("setgroups", put_text("/proc/self/setgroups", "deny"));
        to->step("uid_map", put_text("/proc/self/uid_map", users));
        to->step("gid_map", put_text("/proc/self/gid_map", groups));
    }
}

// Shows what lies at source, with all mounted below it, at target.
static void bind_into(progress *to, const std::string &source,
                      const fs::path &target)
{
    to->step("bind " + target.string(),
             mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC,
                   nullptr) == 0);
}

// A directory or symbolic link of the machine's root; absent ones stay so.
static void take_over(progress *to, const fs::path &root, const char *name)
{
    std::error_code error;
    const fs::path source = fs::path("/") / name;

    if (fs::is_symlink(source)) {
        fs::create_symlink(fs::read_symlink(source), root / name, error);
        to->step(name, !error);
    } else if (fs::is_directory(source)) {
        fs::create_directory(root / name, error);
        bind_into(to, source, root / name);
    }
}

static void make_devices(progress *to, const fs::path &root)
{
    std::error_code error;

    // The machine's own would refuse a process that is not its root.
    const fs::path terminals = root / "dev/pts";
    fs::create_directories(terminals, error);
    to->step("devpts", mount("devpts", terminals.c_str(), "devpts", 0,
                             "newinstance,ptmxmode=0666,mode=620") == 0);
    fs::create_symlink("pts/ptmx", root / "dev/ptmx", error);
    for (const char *name : {"null", "zero", "random", "urandom", "tty"}) {
        const fs::path target = root / "dev" / name;
        const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0);
        close(fd);
        bind_into(to, std::string("/dev/") + name, target);
    }
}

// Directories that the process writes to when it ends. /tmp is covered by
// then: descriptors lead to what it hides.
struct kept_directory {
    std::string path;
    int fd;
};

static kept_directory keep(const std::string &path)
{
    return {path, open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
}

static std::vector<kept_directory> kept_directories()
{
    std::vector<kept_directory> kept = {keep(fs::current_path().string())};
    const char *profile = getenv("LLVM_PROFILE_FILE");

    if (profile != nullptr && profile[0] == '/') {
        kept.push_back(keep(fs::path(profile).parent_path().string()));
    }
    return kept;
}

static void give_back(progress *to, const kept_directory &kept,
                      const fs::path &root)
{
    std::error_code error;
    const fs::path target = root / kept.path.substr(1);

    if (kept.fd >= 0 && kept.path != "/" && kept.path != "/tmp") {
        fs::create_directories(target, error);
        bind_into(to, "/proc/self/fd/" + std::to_string(kept.fd), target);
    }
    close(kept.fd);
}

std::string enter_private_root()
{
    progress to;
    const fs::path root = "/tmp/root";
    const std::string directory = fs::current_path().string();

    become_root_of_namespace(&to);
    // A directory of the old namespace could not be shown in the new one.
    const std::vector<kept_directory> kept = kept_directories();
    // Nothing that follows may show outside.
    to.step("make private",
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
    to.step("tmpfs on /tmp",
            to.failure.empty() &&
                mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") == 0);
    if (!to.failure.empty()) {
        return to.failure;
    }
    to.step("mkdir", mkdir(root.c_str(), 0755) == 0);
    to.step("tmpfs", mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=755") == 0);
    for (const char *name :
         {"usr", "bin", "sbin", "lib", "lib64", "etc", "proc", "sys"}) {
        take_over(&to, root, name);
    }
    make_devices(&to, root);
    to.step("mkdir tmp", mkdir((root / "tmp").c_str(), 0777) == 0);
    for (const kept_directory &each : kept) {
        give_back(&to, each, root);
    }
    to.step("chroot", chroot(root.c_str()) == 0);
    if (chdir(directory.c_str()) != 0) {
        to.step("chdir", chdir("/") == 0);
    }
    return to.failure;
}

void put_over(const std::string &path, const std::string &content)
{
    // Stays: nothing could be put over it once it has no name.
    char copy[] = "/tmp/put-over-XXXXXX";
    const int fd = mkstemp(copy);

    ASSERT_GE(fd, 0) << strerror(errno);
    close(fd);
    spill(copy, content);
    ASSERT_EQ(mount(copy, path.c_str(), nullptr, MS_BIND, nullptr), 0)
        << path << ": " << strerror(errno);
}

void private_root_test::SetUp()
{
    const std::string failure = enter_private_root();

    ASSERT_EQ(failure, "");
    ASSERT_EQ(unsetenv("TMPDIR"), 0);
    umask(022);
    nothing_left::SetUp();
}

void private_root_test::make_directories(const std::string &path) const
{
    fs::create_directories(path);
}

std::vector<std::string> private_root_test::tty_log() const
{
    std::vector<std::string> log = lines_of("/mng/tty/.tty_lib_dump.txt");

    for (std::string &line : log) {
        line = without_stamp(line);
    }
    return log;
}

} // namespace support
