// A daemon whose listener failed gives up the connection, keeps its sessions
// and is back after 100 ms: its lines are parked meanwhile, and handed to the
// next connection of the same process. What it was told and has not confirmed
// died with the connection, read or unread.
#include "programs/ttylined/daemons.h"

#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

#include "programs/ttylined/accept.h"
#include "programs/ttylined/clock.h"
#include "programs/ttylined/left_lines.h"
#include "programs/ttylined/record.h"

constexpr std::size_t SERVICES_MAX = 128;

// One that stays away longer is gone.
constexpr int64_t PARKED_MS = 5000;

static bool same_service(const tty_cmsg &a, const tty_cmsg &b)
{
    const bool by_path = (a.vc_flag & VC_FLAG_PORT_PERMIT) == 0;

    return a.vc_flag == b.vc_flag && a.socktype == b.socktype &&
           a.protocol == b.protocol &&
           (by_path ? strncmp(a.path, b.path, VC_PATH_SIZE) == 0
                    : a.port == b.port);
}

// The caller changes what it finds.
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

static void remember_service(client &cli, const tty_cmsg &request)
{
    service *known = find_service(cli, request);

    if (known != nullptr) {
        *known = {request, "permitted"};
    } else if (cli.services.size() < SERVICES_MAX) {
        cli.services.push_back({request, "permitted"});
    } else {
        client_note(cli.number, "too many services to remember");
    }
}

// A TIPC request may carry the bit of a path request as well: kind decides.
static void on_listen_request(client &cli, const tty_cmsg &record,
                              uint32_t kind)
{
    tty_cmsg permit = record;

    permit.vc_flag = kind;
    remember_service(cli, permit);
    client_send(cli, permit);
}

// A hold that was sent before the connection came must keep it from its line,
// but it comes in on another socket: what waits there is taken first.
static void on_accept_report(client_table &clients, assignments &lines,
                             admin_side &admin, client &cli,
                             const tty_cmsg &record)
{
    admin_serve(admin, lines);
    assign_report(lines, clients, cli, record);
}

static void on_line_clean(line_pool &pool, const client &cli,
                          const tty_cmsg &record)
{
    const std::string line = "line " + std::to_string(record.ttyno);

    switch (pool_clean(pool, cli.number, record)) {
    case clean_result::freed:
        break;
    case clean_result::late_answer:
        client_note(cli.number, line + " was freed before");
        break;
    case clean_result::not_owner:
        client_note(cli.number, line + " is not its line");
        break;
    }
}

static void on_alloc_ok(line_pool &pool, const client &cli,
                        const tty_cmsg &record)
{
    if (!pool_confirm(pool, cli.number, record)) {
        client_note(cli.number, "line " + std::to_string(record.ttyno) +
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

static void on_port_change(client &cli, const tty_cmsg &record)
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
    client_send(cli, permit);
}

static void on_record(client_table &clients, assignments &lines,
                      admin_side &admin, client &cli, const tty_cmsg &record)
{
    cli.renewing = false;

    switch (record_kind_of(record, record_way::from_client)) {
    case record_kind::alloc:
        on_accept_report(clients, lines, admin, cli, record);
        break;
    case record_kind::clear:
        on_line_clean(lines.pool, cli, record);
        break;
    case record_kind::port_permit:
        on_listen_request(cli, record, VC_FLAG_PORT_PERMIT);
        break;
    case record_kind::path_permit:
        on_listen_request(cli, record, VC_FLAG_PATH_PERMIT);
        break;
    case record_kind::port_fail:
        on_listen_failed(cli, record, VC_FLAG_PORT_PERMIT);
        break;
    case record_kind::path_fail:
        on_listen_failed(cli, record, VC_FLAG_PATH_PERMIT);
        break;
    case record_kind::alloc_ok:
        on_alloc_ok(lines.pool, cli, record);
        break;
    case record_kind::port_change:
        on_port_change(cli, record);
        break;
    case record_kind::stop_listen:
    case record_kind::unknown:
        break;
    }
}

// One read and what came with it; false when there was nothing to read.
static bool hear(client_table &clients, assignments &lines, admin_side &admin,
                 client &cli)
{
    tty_cmsg record;

    if (!client_receive(cli)) {
        return false;
    }
    while (client_next(cli, record)) {
        on_record(clients, lines, admin, cli, record);
    }
    return true;
}

void daemons_watch(const login_daemons &daemons, watch_list &list)
{
    for (const auto &[number, cli] : daemons.clients) {
        watch(list, cli.fd, true, !cli.out.empty());
    }
}

// Clients that hung up are settled before the others ask: their lines are
// free then. What they left behind is bounded, as nothing can follow it. From
// the others one read is taken, so that one that floods delays nobody.
void daemons_serve(login_daemons &daemons, assignments &lines,
                   admin_side &admin, const ready_events &ready)
{
    client_table &clients = daemons.clients;

    for (auto &[number, cli] : clients) {
        if ((events_of(ready, cli.fd) & POLLHUP) != 0) {
            while (!cli.doomed && hear(clients, lines, admin, cli)) {
            }
        }
    }
    daemons_reap(daemons, lines.pool);
    for (auto &[number, cli] : clients) {
        const int events = events_of(ready, cli.fd);
        if ((events & ~POLLOUT) != 0) {
            hear(clients, lines, admin, cli);
        }
        if ((events & POLLOUT) != 0 && !cli.doomed) {
            client_flush(cli);
        }
    }
    daemons_reap(daemons, lines.pool);
}

static void adopt_parked(login_daemons &daemons, line_pool &pool,
                         const client &cli)
{
    for (auto it = daemons.parked.begin(); it != daemons.parked.end();) {
        if (it->peer_pid != cli.peer_pid) {
            ++it;
            continue;
        }
        const std::size_t count = pool_hand_over(pool, it->client, cli.number);
        client_note(cli.number, "is client " + std::to_string(it->client) +
                                    " again, with " + std::to_string(count) +
                                    " lines");
        it = daemons.parked.erase(it);
    }
}

void daemons_accept(login_daemons &daemons, line_pool &pool)
{
    ucred peer = {};
    socklen_t length = sizeof peer;

    const int fd = accept_or_pause(daemons.listener.fd);
    if (fd < 0) {
        return;
    }
    client &cli = daemons.clients[++daemons.last_number];
    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    cli.fd = fd;
    cli.number = daemons.last_number;
    cli.peer_pid = peer.pid;
    client_note(cli.number, "connected, process " + std::to_string(peer.pid));
    adopt_parked(daemons, pool, cli);
}

// What the sessions have said of themselves is asked while the lines are still
// theirs.
static void free_lines(line_pool &pool, unsigned client)
{
    const std::vector<left_line> left = left_lines_of(pool, client);

    pool_drop_client(pool, client, false);
    left_lines_clean(left);
}

static void leave(login_daemons &daemons, line_pool &pool, const client &cli)
{
    const bool returns = cli.renewing && cli.peer_pid > 0;

    if (!returns) {
        free_lines(pool, cli.number);
    } else if (pool_drop_client(pool, cli.number, true) > 0) {
        daemons.parked.push_back(
            {cli.number, cli.peer_pid, monotonic_ms() + PARKED_MS});
    }
    close(cli.fd);
    accept_resume();
}

void daemons_reap(login_daemons &daemons, line_pool &pool)
{
    for (auto it = daemons.clients.begin(); it != daemons.clients.end();) {
        if (it->second.doomed) {
            leave(daemons, pool, it->second);
            it = daemons.clients.erase(it);
        } else {
            ++it;
        }
    }
}

void parked_expire(login_daemons &daemons, line_pool &pool)
{
    const int64_t now = monotonic_ms();

    for (auto it = daemons.parked.begin(); it != daemons.parked.end();) {
        if (it->until > now) {
            ++it;
            continue;
        }
        client_note(it->client, "did not come back, its lines are free");
        free_lines(pool, it->client);
        it = daemons.parked.erase(it);
    }
}
