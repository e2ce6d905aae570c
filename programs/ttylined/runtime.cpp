// Whoever can change a component of the path can put links where a daemon of
// root's writes, so each is looked at before anything is opened below it.
//
// Whoever holds the lock on the directory may replace a socket file that
// nobody serves: two daemons that start together would both find it dead.
#include "programs/ttylined/runtime.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ttyline/kit.h>

#include "programs/shared/runtime_path.h"

constexpr mode_t DIRECTORY_MODE = 0700;

static bool fail(std::string &error, const std::string &what)
{
    error = what + ": " + std::strerror(errno);
    return false;
}

static bool is_own(int fd, const std::string &path, std::string &error)
{
    struct stat status = {};

    if (fstat(fd, &status) != 0) {
        return fail(error, path);
    }
    if (status.st_uid != geteuid()) {
        error = path + " belongs to user " + std::to_string(status.st_uid);
        return false;
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        error = path + " can be written by others";
        return false;
    }
    return true;
}

// The descriptor stays open: it carries the lock until the process ends.
static bool lock_directory(const std::string &path, std::string &error)
{
    const int fd =
        open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);

    if (fd < 0) {
        return fail(error, path);
    }
    if (!is_own(fd, path, error)) {
        close(fd);
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        error = path + ": another line-allocation daemon runs there";
        close(fd);
        return false;
    }
    return true;
}

std::string runtime_admin_path()
{
    return runtime_path("/mng/tty/.tty_rl");
}

bool runtime_take(std::string &socket_path, std::string &error)
{
    const std::string directory = runtime_path("/mng/tty/inetd");

    if (kit_runtime_check() != 0) {
        error = kit_error();
        return false;
    }
    if (mkdir(directory.c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST) {
        return fail(error, directory);
    }
    socket_path = directory + "/.qv_inetd";
    return lock_directory(directory, error);
}
