// Whatever a client sends, the worst that follows is the loss of that client.
#include "programs/ttylined/client.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include "programs/ttylined/record.h"
#include "programs/ttylined/trace.h"

constexpr std::size_t OUT_RECORDS_MAX = std::size_t{256} * 1024 / RECORD_SIZE;

static std::string client_name(unsigned number)
{
    return "client " + std::to_string(number) + ": ";
}

void client_note(unsigned number, const std::string &text)
{
    trace_note(client_name(number) + text);
}

static void trace_record(const client &cli, record_way way,
                         const tty_cmsg &record)
{
    const char *direction = way == record_way::from_client ? "from " : "to ";

    if (trace_wanted()) {
        trace_line(direction + client_name(cli.number) +
                   record_text(record, way));
    }
}

// One record, one call: the library takes a record out of the socket in one
// read and gives the connection up when it gets less. Several records sent
// together are cut by the kernel where it pleases.
static ssize_t send_first(client &cli)
{
    const auto *bytes = reinterpret_cast<const char *>(&cli.out.front());

    return send(cli.fd, bytes + cli.out_sent, RECORD_SIZE - cli.out_sent,
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
            // What it sent before it left is still to be read.
            cli.deaf = true;
            cli.out.clear();
            return;
        }
        cli.out_sent += static_cast<std::size_t>(ret);
        if (cli.out_sent == RECORD_SIZE) {
            cli.out.pop_front();
            cli.out_sent = 0;
        }
    }
}

void client_send(client &cli, const tty_cmsg &record)
{
    if (cli.deaf || cli.doomed) {
        return;
    }
    trace_record(cli, record_way::to_client, record);
    cli.out.push_back(record);
    if (cli.out.size() == 1) {
        client_flush(cli);
    }
    if (cli.out.size() > OUT_RECORDS_MAX) {
        client_note(cli.number, "dropped, it does not read");
        cli.renewing = false;
        cli.doomed = true;
    }
}

bool client_receive(client &cli)
{
    const ssize_t ret = recv(cli.fd, cli.in.data() + cli.in_used,
                             cli.in.size() - cli.in_used, 0);

    if (ret > 0) {
        cli.in_used += static_cast<std::size_t>(ret);
        return true;
    }
    if (ret < 0 && (errno == EAGAIN || errno == EINTR)) {
        return false;
    }
    if (cli.in_used > 0) {
        cli.renewing = false;
        client_note(cli.number, "left in the middle of a record");
    } else {
        client_note(cli.number, "disconnected");
    }
    cli.doomed = true;
    return false;
}

bool client_next(client &cli, tty_cmsg &record)
{
    if (cli.doomed || cli.in_used < RECORD_SIZE) {
        return false;
    }
    std::memcpy(&record, cli.in.data(), RECORD_SIZE);
    cli.in_used -= RECORD_SIZE;
    std::memmove(cli.in.data(), cli.in.data() + RECORD_SIZE, cli.in_used);
    trace_record(cli, record_way::from_client, record);
    return true;
}
