#include "programs/ttylined/order.h"

#include <algorithm>
#include <cstring>

static bool fits(const tty_cmsg &order, const tty_cmsg &request)
{
    const bool by_path = request.vc_flag == VC_FLAG_PATH_PERMIT;

    if (request.protocol != order.protocol) {
        return false;
    }
    switch (order.vc_flag) {
    case VC_FLAG_PORT_FAIL:
        return !by_path && request.port == order.port;
    case VC_FLAG_PATH_FAIL:
        return by_path && strncmp(request.path, order.path, VC_PATH_SIZE) == 0;
    default:
        return true;
    }
}

static bool concerns(const tty_cmsg &order, const client &cli)
{
    return std::any_of(cli.services.begin(), cli.services.end(),
                       [&](const service &known) {
                           return fits(order, known.request);
                       });
}

bool order_has_client(const server &srv, const tty_cmsg &order)
{
    return std::any_of(srv.daemons.clients.begin(), srv.daemons.clients.end(),
                       [&](const auto &entry) {
                           return concerns(order, entry.second);
                       });
}

void order_note_sent(answer &reply, unsigned client)
{
    answer_note(reply, "ok", "sent to client " + std::to_string(client));
}

void order_send(server &srv, tty_cmsg order, const char *state, answer &reply)
{
    int sent = 0;

    for (auto &[number, cli] : srv.daemons.clients) {
        if (!concerns(order, cli)) {
            continue;
        }
        for (service &known : cli.services) {
            if (fits(order, known.request)) {
                known.state = state;
                order.pid = known.request.pid;
            }
        }
        client_send(cli, order);
        order_note_sent(reply, number);
        sent++;
    }
    if (sent == 0) {
        answer_error(reply, "no client announced such a service");
    }
}

int order_count_sessions(const server &srv, const tty_cmsg *order)
{
    int count = 0;

    for (const pool_line &line : srv.lines.pool.lines) {
        const auto owner = srv.daemons.clients.find(line.client);
        if (line.state != line_state::unused &&
            (order == nullptr || (owner != srv.daemons.clients.end() &&
                                  concerns(*order, owner->second)))) {
            count++;
        }
    }
    return count;
}
