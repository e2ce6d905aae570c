#include "bench/load_connection.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

// The telnet protocol: a command is this byte, a verb and for four of the
// verbs an option; a subnegotiation lasts until the byte and its end.
static constexpr unsigned char iac = 255;
static constexpr unsigned char dont = 254;
static constexpr unsigned char do_ = 253;
static constexpr unsigned char wont = 252;
static constexpr unsigned char will = 251;
static constexpr unsigned char sub_begin = 250;
static constexpr unsigned char sub_end = 240;
static constexpr unsigned char option_echo = 1;
static constexpr unsigned char option_no_go_ahead = 3;

enum { plain, after_iac, after_verb, in_sub, in_sub_after_iac };

void give_up(const char *what)
{
    fprintf(stderr, "load_client: %s: %s\n", what, strerror(errno));
    exit(1);
}

static int connect_tcp(int port)
{
    const int fd =
        socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    int on = 1;

    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0) {
        give_up("socket");
    }
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) !=
            0 &&
        errno != EINPROGRESS) {
        give_up("connect");
    }
    return fd;
}

// On a terminal of its own, or it would not ask the server for one. What it
// says about itself is not part of the session.
static int start_program(const std::vector<std::string> &command, pid_t &pid)
{
    std::vector<char *> arguments;
    termios modes = {};
    int master = -1;

    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    cfmakeraw(&modes);
    pid = forkpty(&master, nullptr, &modes, nullptr);
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open("/dev/null", O_WRONLY), 2);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    if (pid < 0 || fcntl(master, F_SETFD, FD_CLOEXEC) != 0 ||
        fcntl(master, F_SETFL, O_RDWR | O_NONBLOCK) != 0) {
        give_up("forkpty");
    }
    return master;
}

Connection::Connection(const Target &target)
    : telnet_(target.kind == Target::telnet)
{
    fd_ = target.kind == Target::program ? start_program(target.command, pid_)
                                         : connect_tcp(target.port);
}

Connection::~Connection()
{
    close(fd_);
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
}

// The server may echo and need not say whose turn it is; nothing else is
// wanted. A question that comes again is not answered again.
void Connection::negotiate(unsigned char verb, unsigned char option)
{
    bool &answered = answered_[verb - will][option];
    const bool agreed =
        option == option_no_go_ahead || (option == option_echo && verb == will);
    unsigned char answer[3] = {iac, 0, option};

    if (answered || verb == wont || verb == dont) {
        return;
    }
    answered = true;
    if (verb == will) {
        answer[1] = agreed ? do_ : dont;
    } else {
        answer[1] = agreed ? will : wont;
    }
    send(reinterpret_cast<char *>(answer), sizeof answer);
}

size_t Connection::take_protocol_off(char *buffer, size_t size)
{
    size_t kept = 0;

    for (size_t i = 0; i < size; i++) {
        const auto byte = static_cast<unsigned char>(buffer[i]);
        if (state_ == plain && byte != iac) {
            buffer[kept++] = buffer[i];
        } else if (state_ == plain) {
            state_ = after_iac;
        } else if (state_ == after_iac) {
            verb_ = byte;
            state_ = byte == sub_begin ? in_sub
                     : byte >= will    ? after_verb
                                       : plain;
        } else if (state_ == after_verb) {
            negotiate(verb_, byte);
            state_ = plain;
        } else if (state_ == in_sub) {
            state_ = byte == iac ? in_sub_after_iac : in_sub;
        } else {
            state_ = byte == sub_end ? plain : in_sub;
        }
    }
    return kept;
}

size_t Connection::receive(char *buffer, size_t size)
{
    const ssize_t n = read(fd_, buffer, size);

    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return 0;
    }
    if (n <= 0) {
        errno = n < 0 ? errno : ECONNRESET;
        give_up("a session has ended");
    }
    const size_t got = static_cast<size_t>(n);
    return telnet_ ? take_protocol_off(buffer, got) : got;
}

size_t Connection::send(const char *bytes, size_t size)
{
    const ssize_t n = write(fd_, bytes, size);

    if (n < 0 && errno != EAGAIN && errno != EINTR) {
        give_up("a session takes nothing more");
    }
    return n < 0 ? 0 : static_cast<size_t>(n);
}
