// The line-allocation daemon as who starts it sees it: options, sockets, the
// trace, and the end.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/system/programs/ttylined_run.h"

TEST_F(Ttylined, the_socket_and_its_directories_are_closed_to_others)
{
    start({"--control", run.control_path()});
    struct stat status = {};
    for (const std::string &path : {run.socket_path(), run.control_path()}) {
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(status.st_mode & 07777, 0600U);
    }
    for (const char *name : {"/mng", "/mng/tty", "/mng/tty/inetd"}) {
        ASSERT_EQ(stat((run.directory + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0700U) << name;
    }
}

TEST_F(Ttylined, signals_end_it_in_order)
{
    for (int signal : {SIGTERM, SIGINT}) {
        ASSERT_TRUE(run.start({{"--control", run.control_path()}, 0, true}));
        const unique_fd fd = client();
        ASSERT_TRUE(settled(fd));
        ASSERT_EQ(kill(run.pid, signal), 0);
        EXPECT_EQ(run.exit_status(), 0) << signal;
        EXPECT_TRUE(waits_for_end(fd));
        EXPECT_NE(access(run.socket_path().c_str(), F_OK), 0) << signal;
        EXPECT_NE(access(run.control_path().c_str(), F_OK), 0) << signal;
    }
}

// A rotation of logs that ended it would end every session.
TEST_F(Ttylined, a_hangup_opens_the_trace_file_anew_and_ends_nothing)
{
    const std::string path = run.directory + "/trace";
    start({"--trace=" + path});
    const unique_fd fd = client();
    ASSERT_TRUE(settled(fd));
    ASSERT_EQ(rename(path.c_str(), (path + ".old").c_str()), 0);
    ASSERT_EQ(kill(run.pid, SIGHUP), 0);
    // The signal may come after the next request.
    while (access(path.c_str(), F_OK) != 0) {
        ASSERT_TRUE(settled(fd));
    }
    ASSERT_TRUE(settled(fd));
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    EXPECT_NE(text.find("to client 1: permit"), std::string::npos) << text;
}

// What comes on a service manager's socket next, empty when nothing does.
static std::string told(const unique_fd &manager)
{
    pollfd ask = {manager.fd, POLLIN, 0};
    char text[64];

    if (poll(&ask, 1, 20000) != 1) {
        return "";
    }
    const ssize_t got = recv(manager.fd, text, sizeof text, 0);
    return {text, got > 0 ? static_cast<std::size_t>(got) : 0};
}

TEST_F(Ttylined, a_service_manager_is_told_that_it_listens_turns_and_ends)
{
    const std::string name = run.directory + "/manager";
    const unique_fd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    ASSERT_EQ(bind(manager.fd, reinterpret_cast<const sockaddr *>(&address),
                   sizeof address),
              0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    setenv("WATCHDOG_USEC", "200000", 1);
    start();
    EXPECT_EQ(told(manager), "READY=1");
    EXPECT_TRUE(settled(client()));
    EXPECT_EQ(told(manager), "WATCHDOG=1");
    EXPECT_EQ(told(manager), "WATCHDOG=1");
    ASSERT_EQ(kill(run.pid, SIGTERM), 0);
    std::string last;
    do {
        last = told(manager);
    } while (last == "WATCHDOG=1");
    EXPECT_EQ(last, "STOPPING=1");
    EXPECT_EQ(run.exit_status(), 0);
}

TEST_F(Ttylined, a_second_one_does_not_start)
{
    start();
    ttylined_run second;
    std::swap(second.directory, run.directory);
    EXPECT_FALSE(second.start({{}, 0, false}));
    EXPECT_EQ(second.exit_status(), 1);
    EXPECT_NE(read_until(second.err, "another").find("another"),
              std::string::npos);
    std::swap(second.directory, run.directory);
    EXPECT_TRUE(settled(client()));
}

TEST_F(Ttylined, a_socket_file_that_nobody_serves_is_replaced)
{
    start();
    ASSERT_EQ(kill(run.pid, SIGKILL), 0);
    EXPECT_EQ(run.exit_status(), -1);
    ASSERT_EQ(access(run.socket_path().c_str(), F_OK), 0);
    start();
    EXPECT_TRUE(settled(client()));
}

TEST_F(Ttylined, a_socket_that_is_served_is_left_alone)
{
    start({"--control", run.control_path()});
    ttylined_run second;
    EXPECT_FALSE(second.start({{"--control", run.control_path()}, 0, false}));
    EXPECT_EQ(second.exit_status(), 1);
    EXPECT_NE(read_until(second.err, "in use").find("in use"),
              std::string::npos);
    EXPECT_NE(access(second.socket_path().c_str(), F_OK), 0);
    EXPECT_EQ(access(run.control_path().c_str(), F_OK), 0);
}

TEST_F(Ttylined, a_file_that_is_no_socket_is_left_alone)
{
    std::ofstream(run.control_path()) << "text";
    EXPECT_EQ(refusal({"--control", run.control_path()}), 1);
    EXPECT_NE(read_until(run.err, "no socket").find("no socket"),
              std::string::npos);
    EXPECT_EQ(access(run.control_path().c_str(), F_OK), 0);
}

TEST_F(Ttylined, a_too_long_runtime_directory_is_refused)
{
    const std::string kept = run.directory;
    run.directory = kept + "/" + std::string(100, 'd');
    ASSERT_EQ(mkdir(run.directory.c_str(), 0700), 0);
    EXPECT_EQ(refusal({}), 1);
    EXPECT_NE(read_until(run.err, "too long").find("too long"),
              std::string::npos);
    run.directory = kept;
}

TEST_F(Ttylined, bad_options_are_refused)
{
    const std::vector<std::vector<std::string>> bad = {
        {"--nothing"},
        {"word"},
        {"--pool"},
        {"--pool", "6=257-300"},
        {"--pool", "12=258-300"},
        {"--ready-fd", "x"},
        {"--ready-fd", "1"},
        {"--ready-fd", "999"},
        {"--control", ""},
        {"--control"},
    };
    for (const auto &arguments : bad) {
        EXPECT_EQ(refusal(arguments), 2) << arguments.front();
        EXPECT_NE(read_until(run.err, "usage").find("usage:"),
                  std::string::npos);
        EXPECT_NE(access(run.socket_path().c_str(), F_OK), 0);
    }
}

TEST_F(Ttylined, help_and_version_end_with_success)
{
    EXPECT_EQ(refusal({"--help"}), 0);
    EXPECT_NE(read_until(run.out, "--pool PROTO=LO-HI[,LO-HI...]\n")
                  .find("usage: ttylined"),
              std::string::npos);
    EXPECT_EQ(refusal({"--version"}), 0);
    EXPECT_EQ(read_until(run.out, "\n"), "ttylined " TTYLINE_VERSION "\n");
}

TEST_F(Ttylined, a_trace_file_that_cannot_be_opened_is_refused)
{
    EXPECT_EQ(refusal({"--trace=" + run.directory + "/none/trace"}), 1);
}

TEST_F(Ttylined, the_trace_shows_both_directions_at_once)
{
    start({"--trace"});
    const unique_fd fd = client();
    ASSERT_TRUE(settled(fd));
    const std::string request = read_until(run.out, "listen request");
    EXPECT_NE(request.find("Z from client 1: listen request family=2 port=9 "
                           "protocol=6 pid=" +
                           std::to_string(getpid()) + " tos=-1\n"),
              std::string::npos);
    EXPECT_NE(read_until(run.out, "permit").find("Z to client 1: permit "),
              std::string::npos);
    ASSERT_TRUE(send_record(fd, with_flag(listen_request(1, 6), 0x4)));
    EXPECT_NE(read_until(run.out, "unknown")
                  .find("from client 1: unknown flag 0x4\n"),
              std::string::npos);
}

TEST_F(Ttylined, the_trace_file_is_appended_to)
{
    const std::string path = run.directory + "/trace";
    std::ofstream(path) << "before\n";
    start({"--trace=" + path});
    ASSERT_TRUE(settled(client()));
    std::ifstream file(path);
    std::string first;
    std::getline(file, first);
    EXPECT_EQ(first, "before");
    const std::string rest{std::istreambuf_iterator<char>(file), {}};
    EXPECT_NE(rest.find("to client 1: permit"), std::string::npos);
}

TEST_F(Ttylined, a_trace_that_fails_is_no_end)
{
    start({"--trace=/dev/full"});
    EXPECT_TRUE(settled(client()));
}

TEST_F(Ttylined, a_closed_standard_output_is_no_end)
{
    start({"--trace"});
    run.out.reset();
    const unique_fd fd = client();
    EXPECT_TRUE(settled(fd));
    EXPECT_TRUE(settled(fd));
}

TEST_F(Ttylined, a_trace_that_is_not_read_delays_nobody)
{
    start({"--trace"});
    const unique_fd fd = client();
    // Some 100 bytes a line, two lines each: twice what may be pending.
    for (int i = 0; i < 12000; i++) {
        ASSERT_TRUE(settled(fd)) << i;
    }
    // There is room again once some of it was read.
    for (int i = 0; i < 5000; i++) {
        ASSERT_NE(read_until(run.out, "\n"), "");
    }
    ASSERT_TRUE(settled(fd));
    const std::string rest = read_until(run.out, "lines lost");
    EXPECT_NE(rest.find(" lines lost, the trace was not read\n"),
              std::string::npos);
    EXPECT_TRUE(settled(fd));
}

TEST_F(Ttylined, an_exhausted_pool_is_traced)
{
    start({"--trace", "--pool", "6=300-300"});
    const unique_fd fd = client();
    EXPECT_EQ(take_line(fd, 6, 7, 1), 300);
    EXPECT_EQ(take_line(fd, 6, 8, 2), -1);
    EXPECT_NE(read_until(run.out, "no line left")
                  .find("client 1: no line left for protocol 6"),
              std::string::npos);
}

// Counts lines until the descriptor was silent or the time is over.
static int count_lines(const unique_fd &fd, const std::string &text, int ms)
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long end = now.tv_sec * 1000LL + now.tv_nsec / 1000000 + ms;
    std::string all;

    for (long long left = ms; left > 0;) {
        pollfd ask = {fd.fd, POLLIN, 0};
        char bytes[4096];
        if (poll(&ask, 1, static_cast<int>(left)) == 1) {
            const ssize_t ret = read(fd.fd, bytes, sizeof bytes);
            if (ret <= 0) {
                break;
            }
            all.append(bytes, static_cast<std::size_t>(ret));
        }
        clock_gettime(CLOCK_MONOTONIC, &now);
        left = end - (now.tv_sec * 1000LL + now.tv_nsec / 1000000);
    }
    int count = 0;
    for (std::size_t at = all.find(text); at != std::string::npos;
         at = all.find(text, at + 1)) {
        count++;
    }
    return count;
}

TEST_F(Ttylined, running_out_of_descriptors_is_survived_without_spinning)
{
    start({"--trace"}, 16);
    std::vector<unique_fd> clients;
    for (int i = 0; i < 20; i++) {
        clients.push_back(client());
        ASSERT_GE(clients.back().fd, 0);
    }
    ASSERT_NE(read_until(run.out, "accept:").find("accept: Too many"),
              std::string::npos);
    const int tries = count_lines(run.out, "accept: Too many", 1000);
    EXPECT_GE(tries, 1);
    // Five a second, and those that were not read before; thousands if it
    // did not pause.
    EXPECT_LE(tries, 100);
    EXPECT_TRUE(settled(clients.front()));

    // All that waited are served once the others leave.
    unique_fd last = std::move(clients.back());
    clients.clear();
    EXPECT_TRUE(settled(last));
}
