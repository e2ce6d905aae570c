// Whoever holds the lock on the directory may replace a socket file that
// nobody serves: two daemons that start together would both find it dead.
#include "programs/ttylined/runtime.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/shared/runtime_path.h"

constexpr mode_t DIRECTORY_MODE = 0700;

static bool fail(std::string &error, const std::string &what)
{
    error = what + ": " + std::strerror(errno);
    return false;
}

// The descriptor stays open: it carries the lock until the process ends.
static bool lock_directory(const std::string &path, std::string &error)
{
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);

    if (fd < 0) {
        return fail(error, path);
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
    std::string directory = runtime_path("");

    for (const char *name : {"/mng", "/tty", "/inetd"}) {
        directory += name;
        if (mkdir(directory.c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST) {
            return fail(error, directory);
        }
    }
    socket_path = directory + "/.qv_inetd";
    return lock_directory(directory, error);
}
