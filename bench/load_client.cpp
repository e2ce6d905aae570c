// Times the sessions of a login server whose session program is load_session.
//
//   load_client tcp PORT | telnet PORT | program COMMAND [ARGUMENT...]
//
// Takes commands from standard input and answers each with a line:
//
//   setup COUNT ATONCE   open COUNT sessions, ATONCE of them under way, each
//                        of which is told to end when its program is there:
//                        RATE MEDIAN P99, a second and in microseconds, from
//                        the connect until the session program is there
//   hangup COUNT ATONCE  the same with clients that go without a word
//   idle COUNT           keep COUNT sessions open that do nothing: COUNT
//   echo COUNT           one session echoes a byte COUNT times: MEDIAN P99
//   active COUNT MS      COUNT sessions, each of which sends a byte when the
//                        last one has come back: ECHOES a second
//   out BYTES, in BYTES  from and to the session program: MiB a second
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <poll.h>
#include <sstream>
#include <string>
#include <vector>

#include "bench/load_connection.h"

using Clock = std::chrono::steady_clock;
using Connections = std::vector<std::unique_ptr<Connection>>;

static constexpr int deadline_ms = 60000;
static constexpr size_t piece_size = 65536;
static constexpr const char *greeting = "ready;";

static Target g_target;

static double microseconds_since(Clock::time_point start)
{
    const auto passed = Clock::now() - start;
    return std::chrono::duration<double, std::micro>(passed).count();
}

static void wait_for(const Connection &connection, short events)
{
    pollfd watched = {connection.fd(), events, 0};

    if (poll(&watched, 1, deadline_ms) <= 0) {
        give_up("nothing comes from the session");
    }
}

static void send_all(Connection &connection, const std::string &text)
{
    size_t sent = 0;

    while (sent < text.size()) {
        wait_for(connection, POLLOUT);
        sent += connection.send(text.data() + sent, text.size() - sent);
    }
}

// Reads until the text has come, which nothing may follow.
static void expect(Connection &connection, const std::string &text)
{
    std::string got;
    char buffer[256];

    while (got.size() < text.size() ||
           got.compare(got.size() - text.size(), text.size(), text) != 0) {
        wait_for(connection, POLLIN);
        got.append(buffer, connection.receive(buffer, sizeof buffer));
    }
}

static std::unique_ptr<Connection> open_session()
{
    auto connection = std::make_unique<Connection>(g_target);

    expect(*connection, greeting);
    return connection;
}

static std::unique_ptr<Connection> open_echoing_session()
{
    auto connection = open_session();

    send_all(*connection, "e;");
    return connection;
}

static double percentile(std::vector<double> &values, int percent)
{
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) * static_cast<size_t>(percent) / 100];
}

// One that has not shown its session program yet.
struct Opening {
    std::unique_ptr<Connection> connection;
    Clock::time_point start;
    std::string got;
};

static Opening begin_opening()
{
    Opening opening;

    opening.start = Clock::now();
    opening.connection = std::make_unique<Connection>(g_target);
    return opening;
}

static bool has_opened(Opening &opening)
{
    char buffer[256];

    opening.got.append(buffer,
                       opening.connection->receive(buffer, sizeof buffer));
    return opening.got.find(greeting) != std::string::npos;
}

// Waits for any of them; those that are there are timed, told the last word and
// replaced or, when enough have been begun, taken out.
static void serve_openings(std::vector<Opening> &under_way, size_t &to_begin,
                           const char *last_word, std::vector<double> &times)
{
    std::vector<pollfd> watched;

    for (const Opening &opening : under_way) {
        watched.push_back({opening.connection->fd(), POLLIN, 0});
    }
    if (poll(watched.data(), watched.size(), deadline_ms) <= 0) {
        give_up("no session comes up");
    }
    for (size_t i = under_way.size(); i-- > 0;) {
        if (watched[i].revents == 0 || !has_opened(under_way[i])) {
            continue;
        }
        times.push_back(microseconds_since(under_way[i].start));
        send_all(*under_way[i].connection, last_word);
        if (to_begin > 0) {
            to_begin--;
            under_way[i] = begin_opening();
        } else {
            under_way.erase(under_way.begin() + static_cast<long>(i));
        }
    }
}

static void measure_setup(size_t count, size_t at_once, const char *last_word)
{
    std::vector<Opening> under_way;
    std::vector<double> times;
    size_t to_begin = count;
    const Clock::time_point start = Clock::now();

    for (; under_way.size() < at_once && to_begin > 0; to_begin--) {
        under_way.push_back(begin_opening());
    }
    while (!under_way.empty()) {
        serve_openings(under_way, to_begin, last_word, times);
    }
    const double seconds = microseconds_since(start) / 1e6;
    printf("%.1f %.1f %.1f\n", static_cast<double>(times.size()) / seconds,
           percentile(times, 50), percentile(times, 99));
}

static void keep_idle(Connections &idle, size_t count)
{
    idle.resize(std::min(idle.size(), count));
    while (idle.size() < count) {
        idle.push_back(open_session());
    }
    printf("%zu\n", idle.size());
}

static void measure_echo(size_t count)
{
    const auto connection = open_echoing_session();
    std::vector<double> times;

    for (size_t i = 0; i < count; i++) {
        const Clock::time_point start = Clock::now();
        send_all(*connection, "x");
        expect(*connection, "x");
        times.push_back(microseconds_since(start));
    }
    printf("%.1f %.1f\n", percentile(times, 50), percentile(times, 99));
}

static size_t answer_echoes(int epoll, size_t most)
{
    std::vector<epoll_event> events(most);
    char buffer[64];
    size_t echoes = 0;

    const int ready =
        epoll_wait(epoll, events.data(), static_cast<int>(most), deadline_ms);
    if (ready <= 0) {
        give_up("no echo comes back");
    }
    for (int i = 0; i < ready; i++) {
        auto *connection =
            static_cast<Connection *>(events[size_t(i)].data.ptr);
        const size_t got = connection->receive(buffer, sizeof buffer);
        echoes += got;
        if (got > 0) {
            connection->send(buffer, got);
        }
    }
    return echoes;
}

static void measure_active(size_t count, double milliseconds)
{
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    Connections sessions;
    size_t echoes = 0;

    for (size_t i = 0; i < count; i++) {
        sessions.push_back(open_echoing_session());
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = sessions.back().get();
        epoll_ctl(epoll, EPOLL_CTL_ADD, sessions.back()->fd(), &event);
    }
    const Clock::time_point start = Clock::now();
    for (const auto &session : sessions) {
        send_all(*session, "x");
    }
    while (microseconds_since(start) < milliseconds * 1e3) {
        echoes += answer_echoes(epoll, count);
    }
    printf("%.0f\n",
           static_cast<double>(echoes) / (microseconds_since(start) / 1e6));
    close(epoll);
}

static void print_throughput(size_t bytes, Clock::time_point start)
{
    printf("%.1f\n", static_cast<double>(bytes) / (1 << 20) /
                         (microseconds_since(start) / 1e6));
}

static void measure_out(size_t bytes)
{
    const auto connection = open_session();
    std::vector<char> buffer(piece_size);
    size_t got = 0;

    const Clock::time_point start = Clock::now();
    send_all(*connection, "o " + std::to_string(bytes) + ";");
    while (got < bytes) {
        wait_for(*connection, POLLIN);
        got += connection->receive(buffer.data(), buffer.size());
    }
    print_throughput(got, start);
}

static void measure_in(size_t bytes)
{
    const auto connection = open_session();
    const std::string piece(piece_size, 'x');

    const Clock::time_point start = Clock::now();
    send_all(*connection, "i " + std::to_string(bytes) + ";");
    for (size_t left = bytes; left > 0;) {
        wait_for(*connection, POLLOUT);
        left -= connection->send(piece.data(), std::min(left, piece.size()));
    }
    expect(*connection, "done;");
    print_throughput(bytes, start);
}

static void obey(const std::string &line, Connections &idle)
{
    std::istringstream words(line);
    std::string command;
    size_t first = 0;
    size_t second = 0;

    words >> command >> first >> second;
    if (command == "setup" && first > 0 && second > 0) {
        measure_setup(first, second, "q;");
    } else if (command == "hangup" && first > 0 && second > 0) {
        measure_setup(first, second, "");
    } else if (command == "idle") {
        keep_idle(idle, first);
    } else if (command == "echo" && first > 0) {
        measure_echo(first);
    } else if (command == "active" && first > 0) {
        measure_active(first, static_cast<double>(second));
    } else if (command == "out") {
        measure_out(first);
    } else if (command == "in") {
        measure_in(first);
    } else {
        errno = EINVAL;
        give_up(line.c_str());
    }
    fflush(stdout);
}

static Target parse_target(int argc, char **argv)
{
    const std::string kind = argc > 2 ? argv[1] : "";

    if (kind == "tcp") {
        return {Target::tcp, atoi(argv[2]), {}};
    }
    if (kind == "telnet") {
        return {Target::telnet, atoi(argv[2]), {}};
    }
    if (kind == "program") {
        return {Target::program, 0, {argv + 2, argv + argc}};
    }
    fputs("usage: load_client tcp PORT | telnet PORT | "
          "program COMMAND [ARGUMENT...]\n",
          stderr);
    exit(2);
}

static void raise_descriptor_limit()
{
    rlimit limit;

    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int main(int argc, char **argv)
{
    Connections idle;
    std::string line;

    g_target = parse_target(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    raise_descriptor_limit();
    while (std::getline(std::cin, line)) {
        obey(line, idle);
    }
    return 0;
}
