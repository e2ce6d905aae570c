/*
 * The line library's requests. They are one-way, from any number of processes
 * that each keep a connection for life. A request that names what there is
 * not is left out; a peer whose bytes are no requests loses its connection,
 * as nobody could say where its next request begins.
 */
#include <array>
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "programs/ttylined/server.h"

static constexpr std::size_t read_size = 4096;

/* In one turn; more than a listener's queue holds. */
static constexpr int accepts_max = 128;

static std::string admin_name(const admin_peer &peer)
{
    return "admin " + std::to_string(peer.number) + ": ";
}

static void trace_request(server &srv, const admin_peer &peer,
                          const line_request &request)
{
    if (srv.trace != nullptr) {
        text_out_add_line(*srv.trace, time_stamp() + " from " +
                                          admin_name(peer) +
                                          request_text(request));
    }
}

static void obey(server &srv, const line_request &request)
{
    const int ttyno = static_cast<int>(request.ttyno);
    line_facts *facts = pool_facts(srv.pool, ttyno);

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
        hold_begin(srv, ttyno, static_cast<int>(request.value));
        break;
    case request_kind::release:
        hold_end(srv);
        break;
    }
}

/* False when what came is broken. */
static bool take_requests(server &srv, admin_peer &peer)
{
    line_request request = {};
    std::string why;

    for (;;) {
        switch (request_next(peer.held, request, why)) {
        case request_result::none:
            return true;
        case request_result::broken:
            trace_note(srv, admin_name(peer) + "dropped, " + why);
            return false;
        case request_result::request:
            break;
        }
        if (request_valid(request, why)) {
            trace_request(srv, peer, request);
            obey(srv, request);
        } else {
            trace_note(srv, admin_name(peer) + request_text(request) +
                                " is ignored, " + why);
        }
    }
}

/* One read; false when the peer has gone or is no longer listened to. */
static bool admin_read(server &srv, admin_peer &peer)
{
    std::array<char, read_size> bytes;
    const ssize_t ret = recv(peer.fd, bytes.data(), bytes.size(), 0);

    if (ret > 0) {
        peer.held.append(bytes.data(), static_cast<std::size_t>(ret));
        return take_requests(srv, peer);
    }
    if (ret < 0 && (errno == EAGAIN || errno == EINTR)) {
        return true;
    }
    trace_note(srv, admin_name(peer) + (peer.held.empty()
                                            ? "disconnected"
                                            : "left in the middle of a "
                                              "request"));
    return false;
}

static void admin_close(server &srv, const admin_peer &peer)
{
    close(peer.fd);
    srv.accept_again = 0;
}

static void read_ready(server &srv)
{
    std::vector<pollfd> fds;

    for (const admin_peer &peer : srv.admins) {
        fds.push_back({peer.fd, POLLIN, 0});
    }
    if (fds.empty() || poll(fds.data(), fds.size(), 0) <= 0) {
        return;
    }
    auto asked = fds.cbegin();
    for (auto it = srv.admins.begin(); it != srv.admins.end(); ++asked) {
        if (asked->revents != 0 && !admin_read(srv, *it)) {
            admin_close(srv, *it);
            it = srv.admins.erase(it);
        } else {
            ++it;
        }
    }
}

static void admin_add(server &srv, int fd)
{
    ucred process = {};
    socklen_t length = sizeof process;
    admin_peer &peer = srv.admins.emplace_back();

    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &process, &length);
    peer.fd = fd;
    peer.number = ++srv.last_admin;
    trace_note(srv, admin_name(peer) + "connected, process " +
                        std::to_string(process.pid));
    if (!admin_read(srv, peer)) {
        admin_close(srv, peer);
        srv.admins.pop_back();
    }
}

/*
 * Takes what has arrived, also on connections that nobody has accepted yet: a
 * request is often the first that its process sends. Asks by itself what is
 * ready, as it is called between two waits as well.
 */
void admin_serve(server &srv)
{
    read_ready(srv);
    for (int i = 0; i < accepts_max && srv.accept_again == 0; i++) {
        const int fd =
            srv.admin.fd < 0 ? -1 : accept_or_pause(srv, srv.admin.fd);
        if (fd < 0) {
            return;
        }
        admin_add(srv, fd);
    }
}
