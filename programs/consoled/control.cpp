/*
 * All signals are blocked in the thread. SIGHUP is aimed at the loop's thread
 * and never comes here. SIGCHLD is sent to the process and may run on any
 * thread that lets it in: here it would reap the child, but interrupt the wait
 * of this thread instead of the loop's, which would then notice the end of a
 * session only when something else wakes it. A signal whose default ends the
 * process ends it from any thread.
 *
 * The thread itself uses neither stdio nor syslog(3): the loop's thread forks,
 * and a lock that is held at that moment stays locked in the child.
 */
#include "programs/consoled/control.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

#include <ttyline/vc.h>

#include "programs/shared/text_stream.h"
#include "programs/shared/unix_listener.h"

using steady = std::chrono::steady_clock;

static constexpr auto client_patience = std::chrono::seconds(10);
static constexpr useconds_t accept_retry_us = 100000;
static constexpr long port_max = 65535;
static constexpr long tos_max = 255;

/* Written before the thread starts, its own from then on. */
static unix_listener g_listener;
static std::vector<int> g_protocols;

using words = std::vector<std::string>;

static const char ok[] = "ok\n";

static std::string refusal(const std::string &reason)
{
    return "error: " + reason + "\n";
}

static bool parse_number(const std::string &text, long lowest, long highest,
                         int &number)
{
    constexpr size_t most_digits = 9;

    if (text.empty() || text.size() > most_digits ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const long value = std::stol(text);
    number = static_cast<int>(value);
    return value >= lowest && value <= highest;
}

static std::string listen_again(int protocol, const words &rest)
{
    (void)rest;
    vc_deal_service_listen(true, protocol);
    return ok;
}

static std::string stop_listening(int protocol, const words &rest)
{
    (void)rest;
    vc_deal_service_listen(false, protocol);
    return ok;
}

/* Port 0 is that of every unix path, which has nowhere to move. */
static std::string move_port(int protocol, const words &rest)
{
    int old_port = 0;
    int new_port = 0;

    if (!parse_number(rest[0], 1, port_max, old_port) ||
        !parse_number(rest[1], 1, port_max, new_port)) {
        return refusal("a port is 1 to 65535");
    }
    if (vc_service_update_port(protocol, old_port, new_port) != 0) {
        return refusal("the line-allocation daemon could not be told");
    }
    return ok;
}

static std::string set_tos(int protocol, const words &rest)
{
    int family = 0;
    int value = 0;

    if (!parse_number(rest[0], AF_INET, AF_INET6, family) ||
        (family != AF_INET && family != AF_INET6)) {
        return refusal("a family is 2 (IPv4) or 10 (IPv6)");
    }
    if (!parse_number(rest[1], 0, tos_max, value)) {
        return refusal("a value is 0 to 255");
    }
    errno = 0;
    if (vc_tos_set(protocol, family, value) == 0) {
        return ok;
    }
    if (errno == 0) {
        return refusal("no service of this protocol and family");
    }
    return refusal(errno == EBADF ? "the service does not listen"
                                  : std::strerror(errno));
}

struct command {
    const char *name;
    const char *arguments;
    size_t numbers; /* after the protocol */
    const char *purpose;
    std::string (*run)(int protocol, const words &rest);
};

static const command commands[] = {
    {"open", "PROTO", 0, "let a protocol's services listen", listen_again},
    {"stop", "PROTO", 0, "close their listeners", stop_listening},
    {"port", "PROTO OLD NEW", 2, "move them from port OLD to NEW", move_port},
    {"tos", "PROTO FAMILY VALUE", 2,
     "TOS (2) or traffic class (10) of the listener", set_tos},
};

static std::string help_text(const std::vector<int> &protocols)
{
    std::ostringstream text;

    for (const command &known : commands) {
        text << known.name << ' ' << known.arguments << "  " << known.purpose
             << '\n';
    }
    text << "help  print this\nprotocols:";
    for (const int protocol : protocols) {
        text << ' ' << protocol;
    }
    text << '\n' << ok;
    return text.str();
}

static words split(const std::string &line)
{
    std::istringstream text(line);
    words found;

    for (std::string word; text >> word;) {
        found.push_back(word);
    }
    return found;
}

static std::string run(const command &known, const words &said,
                       const std::vector<int> &protocols)
{
    constexpr size_t name_and_protocol = 2;
    int protocol = 0;

    if (said.size() != name_and_protocol + known.numbers) {
        return refusal(std::string("usage: ") + known.name + " " +
                       known.arguments);
    }
    if (!parse_number(said[1], 0, INT32_MAX, protocol) ||
        std::find(protocols.begin(), protocols.end(), protocol) ==
            protocols.end()) {
        return refusal("no service of this protocol");
    }
    const words rest(said.begin() + name_and_protocol, said.end());
    return known.run(protocol, rest);
}

std::string control_answer(const std::string &line,
                           const std::vector<int> &protocols)
{
    const words said = split(line);

    if (said.size() == 1 && said[0] == "help") {
        return help_text(protocols);
    }
    for (const command &known : commands) {
        if (!said.empty() && said[0] == known.name) {
            return run(known, said, protocols);
        }
    }
    return refusal("unknown command, try help");
}

static bool wait_for(int fd, short events, steady::time_point deadline)
{
    pollfd watched = {fd, events, 0};
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - steady::now());

    return left.count() > 0 &&
           poll(&watched, 1, static_cast<int>(left.count())) > 0;
}

static bool send_answer(int client, const std::string &answer)
{
    const auto deadline = steady::now() + client_patience;
    size_t done = 0;

    while (done < answer.size()) {
        const ssize_t sent = send(client, answer.data() + done,
                                  answer.size() - done, MSG_NOSIGNAL);
        if (sent >= 0) {
            done += static_cast<size_t>(sent);
        } else if (errno != EAGAIN || !wait_for(client, POLLOUT, deadline)) {
            return false;
        }
    }
    return true;
}

/*
 * The time starts anew with each line, not with each byte. A line without its
 * end may have lost more than that: it is not obeyed.
 */
static bool read_line(int client, text_in &input, std::string &answer)
{
    const auto deadline = steady::now() + client_patience;
    std::string line;

    for (;;) {
        switch (text_in_next(input, false, line)) {
        case text_result::line:
            answer = control_answer(line, g_protocols);
            return true;
        case text_result::too_long:
            answer = refusal("line too long");
            return true;
        case text_result::none:
            break;
        }
        if (!wait_for(client, POLLIN, deadline) ||
            !text_in_read(input, client)) {
            return false;
        }
    }
}

static void serve_client(int client)
{
    text_in input;
    std::string answer;

    while (read_line(client, input, answer) && send_answer(client, answer)) {
    }
}

/* Without a free descriptor the client stays in the queue, and ready. */
static void *serve(void *unused)
{
    (void)unused;
    for (;;) {
        pollfd watched = {g_listener.fd, POLLIN, 0};
        poll(&watched, 1, -1);
        const int client = accept4(g_listener.fd, nullptr, nullptr,
                                   SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0) {
            usleep(accept_retry_us);
            continue;
        }
        serve_client(client);
        close(client);
    }
}

static int start_thread()
{
    pthread_t thread;
    sigset_t all;
    sigset_t before;

    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&thread, nullptr, serve, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error == 0) {
        pthread_detach(thread);
    }
    return error;
}

bool control_start(const std::string &path, const std::vector<int> &protocols,
                   std::string &error)
{
    g_protocols = protocols;
    if (!unix_listen(path, g_listener, error)) {
        return false;
    }
    const int failure = start_thread();
    if (failure != 0) {
        error = std::string("no thread for the control socket: ") +
                std::strerror(failure);
        unix_listener_end(g_listener);
        return false;
    }
    return true;
}
