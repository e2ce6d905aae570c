// Commands of an operator: a table of names and functions. Each function gets
// what follows the name and appends whole lines to the reply.
#include "programs/ttylined/command.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "programs/shared/parse.h"
#include "programs/ttylined/clock.h"
#include "programs/ttylined/record.h"

constexpr int64_t MS_PER_SECOND = 1000;

// The library tears down sessions on the order of a clear only here.
constexpr line_range CLEARABLE = {258, 321};
constexpr int PORT_MAX = 65535;

static void add_line(std::string &reply, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

static void add_line(std::string &reply, const char *format, ...)
{
    char text[640];
    va_list arguments;

    va_start(arguments, format);
    // Started one line above; the analyser of clang 14 does not see it.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    reply += text;
    reply += '\n';
}

// Takes the first word off the text; empty when there is none.
static std::string take_word(std::string &text)
{
    const std::size_t start =
        std::min(text.find_first_not_of(' '), text.size());
    const std::size_t end = std::min(text.find(' ', start), text.size());
    std::string word = text.substr(start, end - start);

    text.erase(0, std::min(text.find_first_not_of(' ', end), text.size()));
    return word;
}

static bool take_number(std::string &text, int low, int high, int &value)
{
    return parse_number(take_word(text), low, high, value);
}

static const char *state_name(line_state state)
{
    return state == line_state::running ? "running" : "assigned";
}

static std::string path_or_dash(const tty_cmsg &record)
{
    return record.path[0] == '\0' ? "-"
                                  : escaped_text(record.path, VC_PATH_SIZE);
}

static std::string where_from(const tty_cmsg &record)
{
    const std::string peer = record_peer_text(record);

    return peer.empty() ? path_or_dash(record) : peer;
}

static void run_list(server &srv, std::string &, std::string &reply)
{
    add_line(reply, "%-5s %-8s %-6s %-10s %-11s %-8s %s", "line", "protocol",
             "client", "client-pid", "session-pid", "state", "peer");
    for (const pool_line &line : srv.lines.pool.lines) {
        if (line.state == line_state::unused) {
            continue;
        }
        const tty_cmsg &record = line.assignment;
        add_line(reply, "%-5d %-8d %-6u %-10d %-11d %-8s %s", record.ttyno,
                 record.protocol, line.client, record.pid, line.session_pid,
                 state_name(line.state), where_from(record).c_str());
    }
}

static void run_services(server &srv, std::string &, std::string &reply)
{
    add_line(reply, "%-6s %-10s %-8s %-6s %-6s %-9s %s", "client", "client-pid",
             "protocol", "family", "port", "state", "path");
    for (const auto &[number, cli] : srv.daemons.clients) {
        for (const service &known : cli.services) {
            const tty_cmsg &record = known.request;
            add_line(reply, "%-6u %-10d %-8d %-6d %-6d %-9s %s", number,
                     record.pid, record.protocol, record.socktype, record.port,
                     known.state, path_or_dash(record).c_str());
        }
    }
}

static void run_clear(server &srv, std::string &arguments, std::string &reply)
{
    int ttyno = 0;

    if (!take_number(arguments, 0, TTY_LINES - 1, ttyno) ||
        !arguments.empty()) {
        add_line(reply, "error: clear LINE, a line from 0 to %d",
                 TTY_LINES - 1);
        return;
    }
    const pool_line *line = pool_find(srv.lines.pool, ttyno);
    if (line->state == line_state::unused) {
        add_line(reply, "error: line %d is free", ttyno);
        return;
    }
    const auto owner = srv.daemons.clients.find(line->client);
    if (owner == srv.daemons.clients.end()) {
        add_line(reply, "error: the daemon of line %d is not connected", ttyno);
        return;
    }
    tty_cmsg record = {};
    record.vc_flag = VC_FLAG_CLIENT_CLEAR;
    record.ttyno = ttyno;
    client_send(owner->second, record);
    add_line(reply, "ok: sent to client %u", owner->first);
    if (ttyno < CLEARABLE.low || ttyno > CLEARABLE.high) {
        add_line(reply, "note: the daemon only honours lines %d to %d",
                 CLEARABLE.low, CLEARABLE.high);
    }
}

// Sends an order to every client with a service that fits, once each and with
// the process id under which it announced the service.
template <typename Fits>
static void send_order(server &srv, tty_cmsg order, const char *state,
                       Fits fits, std::string &reply)
{
    int sent = 0;

    for (auto &[number, cli] : srv.daemons.clients) {
        bool found = false;
        for (service &known : cli.services) {
            if (known.request.protocol == order.protocol &&
                fits(known.request)) {
                known.state = state;
                order.pid = known.request.pid;
                found = true;
            }
        }
        if (found) {
            client_send(cli, order);
            add_line(reply, "ok: sent to client %u", number);
            sent++;
        }
    }
    if (sent == 0) {
        add_line(reply, "error: no client announced such a service");
    }
}

static void run_stop(server &srv, std::string &arguments, std::string &reply)
{
    tty_cmsg order = {};

    order.vc_flag = VC_FLAG_STOP_LISTEN;
    if (!take_number(arguments, 0, POOL_PROTOCOLS - 1, order.protocol) ||
        !arguments.empty()) {
        add_line(reply, "error: stop PROTOCOL, a protocol from 0 to 11");
        return;
    }
    send_order(
        srv, order, "stopped",
        [](const tty_cmsg &) {
            return true;
        },
        reply);
}

static bool is_path_service(const tty_cmsg &request)
{
    return request.vc_flag == VC_FLAG_PATH_PERMIT;
}

static void run_delete_port(server &srv, std::string &arguments,
                            std::string &reply)
{
    tty_cmsg order = {};

    order.vc_flag = VC_FLAG_PORT_FAIL;
    if (!take_number(arguments, 0, POOL_PROTOCOLS - 1, order.protocol) ||
        !take_number(arguments, 0, PORT_MAX, order.port) ||
        !arguments.empty()) {
        add_line(reply, "error: delete-port PROTOCOL PORT");
        return;
    }
    send_order(
        srv, order, "deleted",
        [&](const tty_cmsg &request) {
            return !is_path_service(request) && request.port == order.port;
        },
        reply);
}

static void run_delete_path(server &srv, std::string &arguments,
                            std::string &reply)
{
    tty_cmsg order = {};

    order.vc_flag = VC_FLAG_PATH_FAIL;
    if (!take_number(arguments, 0, POOL_PROTOCOLS - 1, order.protocol) ||
        arguments.empty() || arguments.size() >= VC_PATH_SIZE) {
        add_line(reply, "error: delete-path PROTOCOL PATH, a path of at most "
                        "63 characters");
        return;
    }
    std::memcpy(order.path, arguments.data(), arguments.size());
    send_order(
        srv, order, "deleted",
        [&](const tty_cmsg &request) {
            return is_path_service(request) &&
                   strncmp(request.path, order.path, VC_PATH_SIZE) == 0;
        },
        reply);
}

static std::string hold_text(const line_hold &hold)
{
    if (!hold.on) {
        return "none";
    }
    const std::string except =
        hold.except == TTY_LINES ? "" : " but " + std::to_string(hold.except);
    if (hold.until == 0) {
        return "all lines" + except + ", until released";
    }
    const int64_t left =
        (hold.until - monotonic_ms() + MS_PER_SECOND - 1) / MS_PER_SECOND;
    return "all lines" + except + ", " + std::to_string(left) + " s left";
}

static std::string number_or_dash(const std::optional<uint32_t> &number)
{
    return number ? std::to_string(*number) : "-";
}

static bool is_known(const line_facts &facts)
{
    return facts.logged_in || facts.speed || facts.session_timeout ||
           facts.exec_timeout;
}

static void run_admin(server &srv, std::string &, std::string &reply)
{
    add_line(reply, "hold: %s", hold_text(srv.lines.hold).c_str());
    add_line(reply, "waiting: %zu", srv.lines.waiting.size());
    add_line(reply, "%-5s %-5s %-10s %-15s %s", "line", "login", "speed",
             "session-timeout", "exec-timeout");
    for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
        const line_facts &facts = pool_find(srv.lines.pool, ttyno)->facts;
        if (is_known(facts)) {
            add_line(reply, "%-5d %-5s %-10s %-15s %s", ttyno,
                     facts.logged_in ? "yes" : "no",
                     number_or_dash(facts.speed).c_str(),
                     number_or_dash(facts.session_timeout).c_str(),
                     number_or_dash(facts.exec_timeout).c_str());
        }
    }
}

static void run_hold(server &srv, std::string &arguments, std::string &reply)
{
    const std::string line = take_word(arguments);
    int except = TTY_LINES;
    int seconds = 0;

    if ((line != "none" && !parse_number(line, 0, TTY_LINES - 1, except)) ||
        !take_number(arguments, 0, TTY_HOLD_MAX, seconds) ||
        !arguments.empty()) {
        add_line(reply,
                 "error: hold LINE|none SECONDS, a line from 0 to %d and a "
                 "time from 0 to %d",
                 TTY_LINES - 1, TTY_HOLD_MAX);
        return;
    }
    hold_begin(srv.lines.hold, except, seconds);
    add_line(reply, "ok: %s", hold_text(srv.lines.hold).c_str());
}

static void run_release(server &srv, std::string &arguments, std::string &reply)
{
    if (!arguments.empty()) {
        add_line(reply, "error: release takes no argument");
    } else if (hold_end(srv.lines.hold)) {
        add_line(reply, "ok: released");
    } else {
        add_line(reply, "error: no line is held");
    }
}

static void run_quit(server &srv, std::string &, std::string &reply)
{
    srv.ending = true;
    add_line(reply, "ok: ending");
}

static void run_help(server &srv, std::string &arguments, std::string &reply);

constexpr struct {
    const char *name;
    const char *arguments;
    void (*run)(server &, std::string &arguments, std::string &reply);
    const char *purpose;
} commands[] = {
    {"list", "", run_list, "lines in use"},
    {"services", "", run_services, "listen requests"},
    {"clear", "LINE", run_clear, "end a session"},
    {"stop", "PROTOCOL", run_stop, "close the listeners"},
    {"delete-port", "PROTOCOL PORT", run_delete_port,
     "delete a listener, reset its daemon"},
    {"delete-path", "PROTOCOL PATH", run_delete_path,
     "the same for a unix path"},
    {"admin", "", run_admin, "the hold, logins and settings of lines"},
    {"hold", "LINE|none SECONDS", run_hold,
     "assign no other line; 0: until released"},
    {"release", "", run_release, "end the hold"},
    {"help", "", run_help, "this text"},
    {"quit", "", run_quit, "end ttylined"},
};

static void run_help(server &, std::string &, std::string &reply)
{
    for (const auto &command : commands) {
        const std::string usage =
            std::string(command.name) + " " + command.arguments;
        add_line(reply, "%-28s %s", usage.c_str(), command.purpose);
    }
}

void command_run(server &srv, const std::string &line, std::string &reply)
{
    std::string arguments = line;
    const std::string name = take_word(arguments);

    for (const auto &command : commands) {
        if (name == command.name) {
            command.run(srv, arguments, reply);
            return;
        }
    }
    if (!name.empty()) {
        add_line(
            reply, "error: unknown command \"%s\", try help",
            escaped_text(name.data(), std::min<std::size_t>(name.size(), 40))
                .c_str());
    }
}
