#include "tests/system/support/fake_inetd.h"

#include <linux/sockios.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <utility>

using Clock = std::chrono::steady_clock;

static int left_ms(Clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

static bool readable(int fd, int deadline_ms)
{
    struct pollfd one = {fd, POLLIN, 0};

    return poll(&one, 1, deadline_ms) > 0;
}

InetdConnection::InetdConnection(InetdConnection &&other) noexcept
    : fd_(std::exchange(other.fd_, -1))
{
}

InetdConnection &InetdConnection::operator=(InetdConnection &&other) noexcept
{
    close_now();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
}

InetdConnection::~InetdConnection()
{
    close_now();
}

void InetdConnection::close_now()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

std::optional<tty_cmsg> InetdConnection::receive(int deadline_ms)
{
    const auto end = Clock::now() + std::chrono::milliseconds(deadline_ms);
    tty_cmsg record = {};
    size_t have = 0;

    while (have < sizeof record && readable(fd_, left_ms(end))) {
        const ssize_t got = recv(fd_, reinterpret_cast<char *>(&record) + have,
                                 sizeof record - have, 0);
        if (got <= 0) {
            return std::nullopt;
        }
        have += static_cast<size_t>(got);
    }
    if (have < sizeof record) {
        return std::nullopt;
    }
    return record;
}

bool InetdConnection::closed_by_peer(int deadline_ms)
{
    const auto end = Clock::now() + std::chrono::milliseconds(deadline_ms);
    char buf[4096];

    while (readable(fd_, left_ms(end))) {
        if (recv(fd_, buf, sizeof buf, 0) <= 0) {
            return true;
        }
    }
    return false;
}

bool InetdConnection::silent(int for_ms)
{
    return !readable(fd_, for_ms);
}

bool InetdConnection::send_bytes(const void *data, size_t length)
{
    return ::send(fd_, data, length, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(length);
}

bool InetdConnection::send(const tty_cmsg &record)
{
    return send_bytes(&record, sizeof record);
}

bool InetdConnection::permit(const tty_cmsg &request)
{
    return send(request);
}

bool InetdConnection::assign(tty_cmsg report, int ttyno)
{
    report.ttyno = ttyno;
    return send(report);
}

FakeInetd::FakeInetd()
{
    const std::string root = getenv("TMPDIR");
    struct sockaddr_un address = {};

    mkdir((root + "/mng").c_str(), 0700);
    mkdir((root + "/mng/tty").c_str(), 0700);
    mkdir((root + "/mng/tty/inetd").c_str(), 0700);
    path_ = root + "/mng/tty/inetd/.qv_inetd";
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd_, reinterpret_cast<struct sockaddr *>(&address),
             sizeof address) != 0 ||
        listen(fd_, 16) != 0) {
        abort();
    }
}

FakeInetd::~FakeInetd()
{
    close(fd_);
    unlink(path_.c_str());
}

InetdConnection FakeInetd::accept(int deadline_ms)
{
    if (!readable(fd_, deadline_ms)) {
        return InetdConnection(-1);
    }
    return InetdConnection(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
}

bool FakeInetd::nobody_connects(int for_ms)
{
    return !readable(fd_, for_ms);
}

// All that network sessions can have.
constexpr int LINES[][2] = {{258, 1148}, {1421, 1585}};
constexpr int LOOK_MS = 50;

AnsweringInetd::AnsweringInetd()
{
    for (const auto &range : LINES) {
        for (int line = range[0]; line <= range[1]; line++) {
            free_lines_.insert(line);
        }
    }
}

AnsweringInetd::~AnsweringInetd()
{
    ending_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
}

void AnsweringInetd::start()
{
    thread_ = std::thread(&AnsweringInetd::run, this);
}

void AnsweringInetd::run()
{
    while (!ending_) {
        InetdConnection connection = inetd_.accept(LOOK_MS);
        if (connection.fd() < 0) {
            continue;
        }
        connections_++;
        current_fd_ = connection.fd();
        while (!ending_) {
            idle_ = connection.silent(LOOK_MS);
            if (idle_) {
                continue;
            }
            const auto record = connection.receive();
            if (!record) {
                break;
            }
            answer(&connection, *record);
        }
        current_fd_ = -1;
    }
}

bool AnsweringInetd::everything_answered() const
{
    const int fd = current_fd_;
    int to_read = -1;
    int not_taken = -1;

    // In this order: what is not in the queue any more makes it busy until
    // the answer is in the other one.
    return fd >= 0 && ioctl(fd, FIONREAD, &to_read) == 0 && to_read == 0 &&
           idle_ && ioctl(fd, SIOCOUTQ, &not_taken) == 0 && not_taken == 0;
}

void AnsweringInetd::answer(InetdConnection *connection, const tty_cmsg &record)
{
    tty_cmsg reply = record;

    switch (record.vc_flag) {
    case VC_FLAG_PORT_PERMIT:
    case VC_FLAG_PATH_PERMIT:
        connection->permit(record);
        break;
    case VC_FLAG_PORT_CHANGE:
        reply.vc_flag = VC_FLAG_PORT_CHANGE | VC_FLAG_PORT_PERMIT;
        reply.port = record.peer_port;
        reply.tos = -1;
        connection->send(reply);
        break;
    case VC_FLAG_CLIENT_ALLOC:
        if (!free_lines_.empty()) {
            connection->assign(record, *free_lines_.begin());
            free_lines_.erase(free_lines_.begin());
        }
        break;
    case VC_FLAG_CLIENT_CLEAR:
        free_lines_.insert(record.ttyno);
        cleans_++;
        break;
    default:
        break;
    }
}
