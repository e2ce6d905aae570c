// Commands of an operator: a table of names and functions. Each function gets
// what follows the name and fills the answer. What ends sessions wants to hear
// "--yes", and says before how many.
#include "programs/ttylined/command.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "programs/shared/parse.h"
#include "programs/ttylined/answer.h"
#include "programs/ttylined/clock.h"
#include "programs/ttylined/order.h"
#include "programs/ttylined/record.h"

constexpr int64_t MS_PER_SECOND = 1000;

// The library tears down sessions on the order of a clear only here.
constexpr line_range CLEARABLE = {258, 321};
constexpr int PORT_MAX = 65535;
static const char YES[] = "--yes";

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

// Takes this word off the end of the text.
static bool take_last_word(std::string &text, const std::string &word)
{
    const std::size_t last = text.find_last_not_of(' ');

    if (last == std::string::npos) {
        return false;
    }
    const std::size_t gap = text.rfind(' ', last);
    const std::size_t start = gap == std::string::npos ? 0 : gap + 1;
    if (text.compare(start, last + 1 - start, word) != 0) {
        return false;
    }
    text.erase(start);
    text.erase(text.find_last_not_of(' ') + 1);
    return true;
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

static void run_list(server &srv, std::string &, answer &reply)
{
    answer_table(reply, "lines",
                 {{"line", 5, true},
                  {"protocol", 8, true},
                  {"client", 6, true},
                  {"client-pid", 10, true},
                  {"session-pid", 11, true},
                  {"state", 8, false},
                  {"peer", 0, false}});
    for (const pool_line &line : srv.lines.pool.lines) {
        if (line.state == line_state::unused) {
            continue;
        }
        const tty_cmsg &record = line.assignment;
        answer_row(reply,
                   {std::to_string(record.ttyno),
                    std::to_string(record.protocol),
                    std::to_string(line.client), std::to_string(record.pid),
                    std::to_string(line.session_pid), state_name(line.state),
                    where_from(record)});
    }
    answer_table_end(reply);
}

static void run_services(server &srv, std::string &, answer &reply)
{
    answer_table(reply, "services",
                 {{"client", 6, true},
                  {"client-pid", 10, true},
                  {"protocol", 8, true},
                  {"family", 6, true},
                  {"port", 6, true},
                  {"state", 9, false},
                  {"path", 0, false}});
    for (const auto &[number, cli] : srv.daemons.clients) {
        for (const service &known : cli.services) {
            const tty_cmsg &record = known.request;
            answer_row(reply,
                       {std::to_string(number), std::to_string(record.pid),
                        std::to_string(record.protocol),
                        std::to_string(record.socktype),
                        std::to_string(record.port), known.state,
                        path_or_dash(record)});
        }
    }
    answer_table_end(reply);
}

static void run_clear(server &srv, std::string &arguments, answer &reply)
{
    int ttyno = 0;

    if (!take_number(arguments, 0, TTY_LINES - 1, ttyno) ||
        !arguments.empty()) {
        answer_error(reply, "clear LINE, a line from 0 to " +
                                std::to_string(TTY_LINES - 1));
        return;
    }
    const pool_line *line = pool_find(srv.lines.pool, ttyno);
    if (line->state == line_state::unused) {
        answer_error(reply, "line " + std::to_string(ttyno) + " is free");
        return;
    }
    const auto owner = srv.daemons.clients.find(line->client);
    if (owner == srv.daemons.clients.end()) {
        answer_error(reply, "the daemon of line " + std::to_string(ttyno) +
                                " is not connected");
        return;
    }
    tty_cmsg record = {};
    record.vc_flag = VC_FLAG_CLIENT_CLEAR;
    record.ttyno = ttyno;
    client_send(owner->second, record);
    order_note_sent(reply, owner->first);
    if (ttyno < CLEARABLE.low || ttyno > CLEARABLE.high) {
        answer_note(reply, "note",
                    "the daemon only honours lines " +
                        std::to_string(CLEARABLE.low) + " to " +
                        std::to_string(CLEARABLE.high));
    }
}

static void run_stop(server &srv, std::string &arguments, answer &reply)
{
    tty_cmsg order = {};

    order.vc_flag = VC_FLAG_STOP_LISTEN;
    if (!take_number(arguments, 0, POOL_PROTOCOLS - 1, order.protocol) ||
        !arguments.empty()) {
        answer_error(reply, "stop PROTOCOL, a protocol from 0 to 11");
        return;
    }
    order_send(srv, order, "stopped", reply);
}

static void ask_for_yes(answer &reply, int sessions)
{
    answer_error(reply, "this ends " + std::to_string(sessions) +
                            (sessions == 1 ? " session" : " sessions") +
                            "; say it with --yes");
}

// A daemon that loses a listener so is reset as a whole.
static void delete_service(server &srv, const tty_cmsg &order, bool yes,
                           answer &reply)
{
    if (!yes && order_has_client(srv, order)) {
        ask_for_yes(reply, order_count_sessions(srv, &order));
        return;
    }
    order_send(srv, order, "deleted", reply);
}

static void run_delete_port(server &srv, std::string &arguments, answer &reply)
{
    const bool yes = take_last_word(arguments, YES);
    tty_cmsg order = {};

    order.vc_flag = VC_FLAG_PORT_FAIL;
    if (!take_number(arguments, 0, POOL_PROTOCOLS - 1, order.protocol) ||
        !take_number(arguments, 0, PORT_MAX, order.port) ||
        !arguments.empty()) {
        answer_error(reply, "delete-port PROTOCOL PORT --yes");
        return;
    }
    delete_service(srv, order, yes, reply);
}

static void run_delete_path(server &srv, std::string &arguments, answer &reply)
{
    const bool yes = take_last_word(arguments, YES);
    tty_cmsg order = {};

    order.vc_flag = VC_FLAG_PATH_FAIL;
    if (!take_number(arguments, 0, POOL_PROTOCOLS - 1, order.protocol) ||
        arguments.empty() || arguments.size() >= VC_PATH_SIZE) {
        answer_error(reply, "delete-path PROTOCOL PATH --yes, a path of at "
                            "most 63 characters");
        return;
    }
    std::memcpy(order.path, arguments.data(), arguments.size());
    delete_service(srv, order, yes, reply);
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

static void run_admin(server &srv, std::string &, answer &reply)
{
    answer_fact(reply, "hold", hold_text(srv.lines.hold));
    answer_fact(reply, "waiting", srv.lines.waiting.size());
    answer_table(reply, "lines",
                 {{"line", 5, true},
                  {"login", 5, false},
                  {"speed", 10, true},
                  {"session-timeout", 15, true},
                  {"exec-timeout", 0, true}});
    for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
        const line_facts &facts = pool_find(srv.lines.pool, ttyno)->facts;
        if (is_known(facts)) {
            answer_row(reply,
                       {std::to_string(ttyno), facts.logged_in ? "yes" : "no",
                        number_or_dash(facts.speed),
                        number_or_dash(facts.session_timeout),
                        number_or_dash(facts.exec_timeout)});
        }
    }
    answer_table_end(reply);
}

static void run_hold(server &srv, std::string &arguments, answer &reply)
{
    const std::string line = take_word(arguments);
    int except = TTY_LINES;
    int seconds = 0;

    if ((line != "none" && !parse_number(line, 0, TTY_LINES - 1, except)) ||
        !take_number(arguments, 0, TTY_HOLD_MAX, seconds) ||
        !arguments.empty()) {
        answer_error(reply, "hold LINE|none SECONDS, a line from 0 to " +
                                std::to_string(TTY_LINES - 1) +
                                " and a time from 0 to " +
                                std::to_string(TTY_HOLD_MAX));
        return;
    }
    hold_begin(srv.lines.hold, except, seconds);
    answer_note(reply, "ok", hold_text(srv.lines.hold));
}

static void run_release(server &srv, std::string &arguments, answer &reply)
{
    if (!arguments.empty()) {
        answer_error(reply, "release takes no argument");
    } else if (hold_end(srv.lines.hold)) {
        answer_note(reply, "ok", "released");
    } else {
        answer_error(reply, "no line is held");
    }
}

static void run_quit(server &srv, std::string &arguments, answer &reply)
{
    if (arguments != YES) {
        ask_for_yes(reply, order_count_sessions(srv, nullptr));
        return;
    }
    srv.ending = true;
    answer_note(reply, "ok", "ending");
}

static void run_help(server &srv, std::string &arguments, answer &reply);

constexpr struct {
    const char *name;
    const char *arguments;
    void (*run)(server &, std::string &arguments, answer &reply);
    const char *purpose;
} commands[] = {
    {"list", "", run_list, "lines in use"},
    {"services", "", run_services, "listen requests"},
    {"clear", "LINE", run_clear, "end a session"},
    {"stop", "PROTOCOL", run_stop, "close the listeners"},
    {"delete-port", "PROTOCOL PORT --yes", run_delete_port,
     "delete a listener, reset its daemon: ends all its sessions"},
    {"delete-path", "PROTOCOL PATH --yes", run_delete_path,
     "the same for a unix path"},
    {"admin", "", run_admin, "the hold, logins and settings of lines"},
    {"hold", "LINE|none SECONDS", run_hold,
     "assign no other line; 0: until released"},
    {"release", "", run_release, "end the hold"},
    {"help", "", run_help, "this text"},
    {"quit", "--yes", run_quit, "end ttylined, and with it all sessions"},
};

static void run_help(server &, std::string &, answer &reply)
{
    char line[128];

    answer_list(reply, "help");
    for (const auto &command : commands) {
        const std::string usage =
            std::string(command.name) + " " + command.arguments;
        std::snprintf(line, sizeof line, "%-31s %s", usage.c_str(),
                      command.purpose);
        answer_row(reply, {line});
    }
    answer_table_end(reply);
}

static void run_line(server &srv, std::string &arguments, answer &reply)
{
    const std::string name = take_word(arguments);

    for (const auto &command : commands) {
        if (name == command.name) {
            command.run(srv, arguments, reply);
            return;
        }
    }
    if (!name.empty()) {
        const std::size_t length = std::min<std::size_t>(name.size(), 40);
        answer_error(reply, "unknown command \"" +
                                escaped_text(name.data(), length) +
                                "\", try help");
    }
}

std::string command_run(server &srv, const std::string &line)
{
    std::string arguments = line;
    answer reply;

    reply.json = take_last_word(arguments, "--json");
    run_line(srv, arguments, reply);
    return answer_end(reply);
}
