#include "tests/support/line_peers.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

bool take_lock(const std::string &file)
{
    struct flock lock = {};

    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0;
}

holder::holder(const std::string &file, const std::string &name)
{
    int taken[2];
    int end[2];
    char byte = 0;

    EXPECT_EQ(pipe2(taken, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(end, O_CLOEXEC), 0);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, name.c_str());
        close(end[1]);
        if (getppid() != parent || !take_lock(file) ||
            write(taken[1], "t", 1) != 1) {
            _exit(1);
        }
        _exit(read(end[0], &byte, 1) == 0 ? 0 : 1);
    }
    close(taken[1]);
    close(end[0]);
    EXPECT_EQ(read(taken[0], &byte, 1), 1) << "not locked: " << file;
    close(taken[0]);
    end_ = end[1];
}

holder::~holder()
{
    if (pid_ > 0) {
        let_go();
    }
}

// By a signal: another holder's child may have inherited the pipe's end.
void holder::let_go()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    close(end_);
    pid_ = -1;
}

static sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {};

    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

listener::listener(const std::string &path, int backlog) : path_(path)
{
    const sockaddr_un address = address_of(path);

    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(
        bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address),
        0);
    EXPECT_EQ(listen(fd_, backlog), 0);
}

listener::~listener()
{
    stop();
}

void listener::stop()
{
    for (const int client : clients_) {
        close(client);
    }
    clients_.clear();
    if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = -1;
}

void listener::fill()
{
    const sockaddr_un address = address_of(path_);

    for (;;) {
        const int client =
            socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        clients_.push_back(client);
        if (connect(client, reinterpret_cast<const sockaddr *>(&address),
                    sizeof address) != 0) {
            EXPECT_EQ(errno, EAGAIN);
            return;
        }
    }
}

static bool readable(int fd)
{
    pollfd ask = {fd, POLLIN, 0};

    return poll(&ask, 1, PATIENCE_MS) == 1;
}

int listener::take() const
{
    return readable(fd_) ? accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

std::string listener::request() const
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    unsigned char byte = 0;

    const int fd = take();
    while (fd >= 0 && readable(fd) && read(fd, &byte, 1) == 1) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    close(fd);
    return text;
}
