// The requests are one-way, from any number of processes that each keep a
// connection for life. A request that names what there is not is left out; a
// peer whose bytes are no requests loses its connection, as nobody could say
// where its next request begins.
#include "programs/ttylined/admin.h"

#include <array>
#include <cerrno>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "programs/ttylined/accept.h"
#include "programs/ttylined/request.h"
#include "programs/ttylined/trace.h"

constexpr std::size_t READ_SIZE = 4096;

// In one turn; more than a listener's queue holds.
constexpr int ACCEPTS_MAX = 128;

static std::string admin_name(const admin_peer &peer)
{
    return "admin " + std::to_string(peer.number) + ": ";
}

static void obey(assignments &lines, const line_request &request)
{
    const int ttyno = static_cast<int>(request.ttyno);
    line_facts *facts = pool_facts(lines.pool, ttyno);

    switch (request.kind) {
    case request_kind::login:
        facts->logged_in = true;
        break;
    case request_kind::speed:
        facts->speed = request.value;
        break;
    case request_kind::session_timeout:
        facts->session_timeout = request.value;
        break;
    case request_kind::exec_timeout:
        facts->exec_timeout = request.value;
        break;
    case request_kind::hold:
        hold_begin(lines.hold, ttyno, static_cast<int>(request.value));
        break;
    case request_kind::release:
        hold_end(lines.hold);
        break;
    }
}

static void take_request(const admin_peer &peer, assignments &lines,
                         const line_request &request)
{
    std::string why;

    if (request_valid(request, why)) {
        trace_line("from " + admin_name(peer) + request_text(request));
        obey(lines, request);
    } else {
        trace_note(admin_name(peer) + request_text(request) + " is ignored, " +
                   why);
    }
}

// False when what came is broken.
static bool take_requests(admin_peer &peer, assignments &lines)
{
    line_request request = {};
    std::string why;

    for (;;) {
        switch (request_next(peer.held, request, why)) {
        case request_result::none:
            return true;
        case request_result::broken:
            trace_note(admin_name(peer) + "dropped, " + why);
            return false;
        case request_result::request:
            take_request(peer, lines, request);
            break;
        }
    }
}

// One read; false when the peer has gone or is no longer listened to.
static bool admin_read(admin_peer &peer, assignments &lines)
{
    std::array<char, READ_SIZE> bytes;
    const ssize_t ret = recv(peer.fd, bytes.data(), bytes.size(), 0);

    if (ret > 0) {
        peer.held.append(bytes.data(), static_cast<std::size_t>(ret));
        return take_requests(peer, lines);
    }
    if (ret < 0 && (errno == EAGAIN || errno == EINTR)) {
        return true;
    }
    trace_note(admin_name(peer) + (peer.held.empty()
                                       ? "disconnected"
                                       : "left in the middle of a request"));
    return false;
}

static void admin_close(const admin_peer &peer)
{
    close(peer.fd);
    accept_resume();
}

static void read_ready(admin_side &admin, assignments &lines)
{
    std::vector<pollfd> fds;

    for (const admin_peer &peer : admin.peers) {
        fds.push_back({peer.fd, POLLIN, 0});
    }
    if (fds.empty() || poll(fds.data(), fds.size(), 0) <= 0) {
        return;
    }
    auto asked = fds.cbegin();
    for (auto it = admin.peers.begin(); it != admin.peers.end(); ++asked) {
        if (asked->revents != 0 && !admin_read(*it, lines)) {
            admin_close(*it);
            it = admin.peers.erase(it);
        } else {
            ++it;
        }
    }
}

static void admin_add(admin_side &admin, assignments &lines, int fd)
{
    ucred process = {};
    socklen_t length = sizeof process;
    admin_peer &peer = admin.peers.emplace_back();

    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &process, &length);
    peer.fd = fd;
    peer.number = ++admin.last_number;
    trace_note(admin_name(peer) + "connected, process " +
               std::to_string(process.pid));
    if (!admin_read(peer, lines)) {
        admin_close(peer);
        admin.peers.pop_back();
    }
}

void admin_serve(admin_side &admin, assignments &lines)
{
    read_ready(admin, lines);
    for (int i = 0; i < ACCEPTS_MAX && admin.listener.fd >= 0 &&
                    accept_paused_until() == 0;
         i++) {
        const int fd = accept_or_pause(admin.listener.fd);
        if (fd < 0) {
            return;
        }
        admin_add(admin, lines, fd);
    }
}
