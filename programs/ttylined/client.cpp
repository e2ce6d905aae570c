/*
 * The login daemons: their connections, what they ask and what they are told.
 * Whatever a client sends, the worst that follows is the loss of that client.
 */
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

#include "programs/ttylined/server.h"

static constexpr std::size_t out_records_max =
    std::size_t{256} * 1024 / record_size;
static constexpr std::size_t services_max = 128;

/*
 * A daemon whose listener failed gives up the connection, keeps its sessions
 * and is back after 100 ms. One that stays away longer than this is gone.
 */
static constexpr long long parked_ms = 5000;

static std::string client_name(const client &cli)
{
    return "client " + std::to_string(cli.number) + ": ";
}

static void trace_record(server &srv, const client &cli, record_way way,
                         const tty_cmsg &record)
{
    const char *direction = way == record_way::from_client ? " from " : " to ";

    if (srv.trace != nullptr) {
        text_out_add_line(*srv.trace, time_stamp() + direction + "client " +
                                          std::to_string(cli.number) + ": " +
                                          record_text(record, way));
    }
}

/*
 * One record, one call: the library takes a record out of the socket in one
 * read and gives the connection up when it gets less. Several records sent
 * together are cut by the kernel where it pleases.
 */
static ssize_t send_first(client &cli)
{
    const auto *bytes = reinterpret_cast<const char *>(&cli.out.front());

    return send(cli.fd, bytes + cli.out_sent, record_size - cli.out_sent,
                MSG_NOSIGNAL);
}

void client_flush(client &cli)
{
    while (!cli.out.empty()) {
        const ssize_t ret = send_first(cli);
        if (ret < 0 && errno == EINTR) {
            continue;
        }
        if (ret < 0 && errno == EAGAIN) {
            return;
        }
        if (ret < 0) {
            /* What it sent before it left is still to be read. */
            cli.deaf = true;
            cli.out.clear();
            return;
        }
        cli.out_sent += static_cast<std::size_t>(ret);
        if (cli.out_sent == record_size) {
            cli.out.pop_front();
            cli.out_sent = 0;
        }
    }
}

void client_send(server &srv, client &cli, const tty_cmsg &record)
{
    if (cli.deaf || cli.doomed) {
        return;
    }
    trace_record(srv, cli, record_way::to_client, record);
    cli.out.push_back(record);
    if (cli.out.size() == 1) {
        client_flush(cli);
    }
    if (cli.out.size() > out_records_max) {
        trace_note(srv, client_name(cli) + "dropped, it does not read");
        cli.renewing = false;
        cli.doomed = true;
    }
}

static bool same_service(const tty_cmsg &a, const tty_cmsg &b)
{
    const bool by_path = (a.vc_flag & VC_FLAG_PORT_PERMIT) == 0;

    return a.vc_flag == b.vc_flag && a.socktype == b.socktype &&
           a.protocol == b.protocol &&
           (by_path ? strncmp(a.path, b.path, VC_PATH_SIZE) == 0
                    : a.port == b.port);
}

/* The caller changes what it finds. */
// cppcheck-suppress constParameter
static service *find_service(client &cli, const tty_cmsg &request)
{
    for (service &known : cli.services) {
        if (same_service(known.request, request)) {
            return &known;
        }
    }
    return nullptr;
}

static void remember_service(server &srv, client &cli, const tty_cmsg &request)
{
    service *known = find_service(cli, request);

    if (known != nullptr) {
        *known = {request, "permitted"};
    } else if (cli.services.size() < services_max) {
        cli.services.push_back({request, "permitted"});
    } else {
        trace_note(srv, client_name(cli) + "too many services to remember");
    }
}

/* A TIPC request may carry the bit of a path request as well: kind decides. */
static void on_listen_request(server &srv, client &cli, const tty_cmsg &record,
                              uint32_t kind)
{
    tty_cmsg permit = record;

    permit.vc_flag = kind;
    remember_service(srv, cli, permit);
    client_send(srv, cli, permit);
}

/*
 * A hold that was sent before the connection came must keep it from its line,
 * but it comes in on another socket: what waits there is taken first.
 */
static void on_accept_report(server &srv, client &cli, const tty_cmsg &record)
{
    admin_serve(srv);
    assign_report(srv, cli, record);
}

static void on_line_clean(server &srv, const client &cli,
                          const tty_cmsg &record)
{
    const std::string line = "line " + std::to_string(record.ttyno);

    switch (pool_clean(srv.pool, cli.number, record)) {
    case clean_result::freed:
        break;
    case clean_result::late_answer:
        trace_note(srv, client_name(cli) + line + " was freed before");
        break;
    case clean_result::not_owner:
        trace_note(srv, client_name(cli) + line + " is not its line");
        break;
    }
}

static void on_alloc_ok(server &srv, const client &cli, const tty_cmsg &record)
{
    if (!pool_confirm(srv.pool, cli.number, record)) {
        trace_note(srv, client_name(cli) + "line " +
                            std::to_string(record.ttyno) +
                            " was not assigned like that");
    }
}

static void on_listen_failed(client &cli, const tty_cmsg &record, uint32_t kind)
{
    tty_cmsg request = record;

    request.vc_flag = kind;
    service *known = find_service(cli, request);
    if (known != nullptr) {
        known->state = "failed";
    }
    cli.renewing = true;
}

static void on_port_change(server &srv, client &cli, const tty_cmsg &record)
{
    tty_cmsg request = record;
    tty_cmsg permit = {};

    request.vc_flag = VC_FLAG_PORT_PERMIT;
    service *known = find_service(cli, request);
    if (known != nullptr) {
        known->request.port = record.peer_port;
        known->state = "permitted";
    }

    permit.vc_flag = VC_FLAG_PORT_PERMIT | VC_FLAG_PORT_CHANGE;
    permit.socktype = record.socktype;
    permit.protocol = record.protocol;
    permit.pid = record.pid;
    permit.port = record.peer_port;
    permit.tos = -1;
    client_send(srv, cli, permit);
}

static void on_record(server &srv, client &cli, const tty_cmsg &record)
{
    trace_record(srv, cli, record_way::from_client, record);
    cli.renewing = false;

    switch (record_kind_of(record, record_way::from_client)) {
    case record_kind::alloc:
        on_accept_report(srv, cli, record);
        break;
    case record_kind::clear:
        on_line_clean(srv, cli, record);
        break;
    case record_kind::port_permit:
        on_listen_request(srv, cli, record, VC_FLAG_PORT_PERMIT);
        break;
    case record_kind::path_permit:
        on_listen_request(srv, cli, record, VC_FLAG_PATH_PERMIT);
        break;
    case record_kind::port_fail:
        on_listen_failed(cli, record, VC_FLAG_PORT_PERMIT);
        break;
    case record_kind::path_fail:
        on_listen_failed(cli, record, VC_FLAG_PATH_PERMIT);
        break;
    case record_kind::alloc_ok:
        on_alloc_ok(srv, cli, record);
        break;
    case record_kind::port_change:
        on_port_change(srv, cli, record);
        break;
    case record_kind::stop_listen:
    case record_kind::unknown:
        break;
    }
}

static void take_records(server &srv, client &cli)
{
    std::size_t done = 0;

    while (!cli.doomed && cli.in_used - done >= record_size) {
        tty_cmsg record;
        std::memcpy(&record, cli.in.data() + done, record_size);
        done += record_size;
        on_record(srv, cli, record);
    }
    cli.in_used -= done;
    std::memmove(cli.in.data(), cli.in.data() + done, cli.in_used);
}

/* One read; false when there was nothing to read. */
bool client_read(server &srv, client &cli)
{
    const ssize_t ret = recv(cli.fd, cli.in.data() + cli.in_used,
                             cli.in.size() - cli.in_used, 0);

    if (ret > 0) {
        cli.in_used += static_cast<std::size_t>(ret);
        take_records(srv, cli);
        return true;
    }
    if (ret < 0 && (errno == EAGAIN || errno == EINTR)) {
        return false;
    }
    if (cli.in_used > 0) {
        cli.renewing = false;
        trace_note(srv, client_name(cli) + "left in the middle of a record");
    } else {
        trace_note(srv, client_name(cli) + "disconnected");
    }
    cli.doomed = true;
    return false;
}

static void adopt_parked(server &srv, const client &cli)
{
    for (auto it = srv.parked.begin(); it != srv.parked.end();) {
        if (it->peer_pid != cli.peer_pid) {
            ++it;
            continue;
        }
        const std::size_t count =
            pool_hand_over(srv.pool, it->client, cli.number);
        trace_note(srv, client_name(cli) + "is client " +
                            std::to_string(it->client) + " again, with " +
                            std::to_string(count) + " lines");
        it = srv.parked.erase(it);
    }
}

static void client_add(server &srv, int fd)
{
    ucred peer = {};
    socklen_t length = sizeof peer;
    client &cli = srv.clients[++srv.last_number];

    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    cli.fd = fd;
    cli.number = srv.last_number;
    cli.peer_pid = peer.pid;
    trace_note(srv, client_name(cli) + "connected, process " +
                        std::to_string(peer.pid));
    adopt_parked(srv, cli);
}

void client_accept(server &srv)
{
    const int fd = accept_or_pause(srv, srv.daemons.fd);

    if (fd >= 0) {
        client_add(srv, fd);
    }
}

/* What was not confirmed died with the connection, read or unread. */
static void client_leave(server &srv, client &cli)
{
    const bool returns = cli.renewing && cli.peer_pid > 0;

    if (pool_drop_client(srv.pool, cli.number, returns) > 0) {
        srv.parked.push_back(
            {cli.number, cli.peer_pid, monotonic_ms() + parked_ms});
    }
    close(cli.fd);
    srv.accept_again = 0;
}

void client_reap(server &srv)
{
    for (auto it = srv.clients.begin(); it != srv.clients.end();) {
        if (it->second.doomed) {
            client_leave(srv, it->second);
            it = srv.clients.erase(it);
        } else {
            ++it;
        }
    }
}

void parked_expire(server &srv)
{
    const long long now = monotonic_ms();

    for (auto it = srv.parked.begin(); it != srv.parked.end();) {
        if (it->until > now) {
            ++it;
            continue;
        }
        trace_note(srv, "client " + std::to_string(it->client) +
                            ": did not come back, its lines are free");
        pool_drop_client(srv.pool, it->client, false);
        it = srv.parked.erase(it);
    }
}
