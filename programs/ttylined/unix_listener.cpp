// A socket file that is there may belong to a server that is alive, so it is
// tried before it is replaced. Two servers that start together would both
// find it dead: whoever fears that locks something first.
#include "programs/ttylined/unix_listener.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

constexpr int BACKLOG = 64;
constexpr mode_t SOCKET_MODE = 0600;

static bool fail(std::string &error, const std::string &what)
{
    error = what + ": " + std::strerror(errno);
    return false;
}

static bool make_address(const std::string &path, sockaddr_un &address,
                         std::string &error)
{
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "'" + path + "' is empty or too long for a socket's path";
        return false;
    }
    address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

static int unix_socket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

// Also true when the server is alive but has no room for one more.
static bool is_served(const sockaddr_un &address)
{
    const int fd = unix_socket();
    const int ret = connect(fd, reinterpret_cast<const sockaddr *>(&address),
                            sizeof address);
    const bool served = ret == 0 || errno != ECONNREFUSED;

    if (fd >= 0) {
        close(fd);
    }
    return served;
}

static bool remove_stale(const sockaddr_un &address, std::string &error)
{
    const std::string path = address.sun_path;
    struct stat status = {};

    if (lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT || fail(error, path);
    }
    if (!S_ISSOCK(status.st_mode)) {
        error = path + ": is there and is no socket";
        return false;
    }
    if (is_served(address)) {
        error = path + ": is in use";
        return false;
    }
    return unlink(path.c_str()) == 0 || fail(error, path);
}

// The mode is set before anybody can connect: listen() comes last.
static bool bind_and_listen(int fd, const sockaddr_un &address,
                            std::string &error)
{
    const char *path = address.sun_path;

    if (bind(fd, reinterpret_cast<const sockaddr *>(&address),
             sizeof address) != 0) {
        return fail(error, path);
    }
    if (chmod(path, SOCKET_MODE) != 0 || listen(fd, BACKLOG) != 0) {
        fail(error, path);
        unlink(path);
        return false;
    }
    return true;
}

bool unix_listen(const std::string &path, unix_listener &listener,
                 std::string &error)
{
    sockaddr_un address = {};
    struct stat status = {};

    if (!make_address(path, address, error) || !remove_stale(address, error)) {
        return false;
    }
    const int fd = unix_socket();
    if (fd < 0) {
        return fail(error, "socket");
    }
    if (!bind_and_listen(fd, address, error)) {
        close(fd);
        return false;
    }
    if (lstat(path.c_str(), &status) == 0) {
        listener.device = status.st_dev;
        listener.inode = status.st_ino;
    }
    listener.fd = fd;
    listener.path = path;
    return true;
}

void unix_listener_end(unix_listener &listener)
{
    struct stat status = {};

    if (listener.fd < 0) {
        return;
    }
    if (lstat(listener.path.c_str(), &status) == 0 &&
        status.st_dev == listener.device && status.st_ino == listener.inode) {
        unlink(listener.path.c_str());
    }
    close(listener.fd);
    listener.fd = -1;
}
