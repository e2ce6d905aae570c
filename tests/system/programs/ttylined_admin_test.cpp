// The requests of the line library, as the line-allocation daemon takes them.
#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "tests/system/programs/ttylined_admin_run.h"

TEST_F(TtylinedAdmin, the_socket_is_closed_to_others_and_leaves_with_the_daemon)
{
    start();
    struct stat status = {};
    ASSERT_EQ(stat(run.admin_path().c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    const unique_fd fd = admin();
    ASSERT_TRUE(send(fd, release()));
    ASSERT_TRUE(contains(traced("release"), "from admin 1: release\n"));
    ASSERT_EQ(kill(run.pid, SIGTERM), 0);
    EXPECT_EQ(run.exit_status(), 0);
    EXPECT_TRUE(waits_for_end(fd));
    EXPECT_NE(access(run.admin_path().c_str(), F_OK), 0);
}

TEST_F(TtylinedAdmin, a_socket_file_that_nobody_serves_is_replaced)
{
    start();
    ASSERT_EQ(kill(run.pid, SIGKILL), 0);
    EXPECT_EQ(run.exit_status(), -1);
    ASSERT_EQ(access(run.admin_path().c_str(), F_OK), 0);
    start();
    ASSERT_TRUE(tell(about_line(5, 0x1, 1)));
    EXPECT_TRUE(contains(traced("login"), "login ttyno=5\n"));
}

TEST_F(TtylinedAdmin, another_daemons_socket_is_left_alone)
{
    std::filesystem::create_directories(run.directory + "/mng/tty");
    const unique_fd other(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, run.admin_path().c_str());
    ASSERT_EQ(
        bind(other.fd, reinterpret_cast<sockaddr *>(&address), sizeof address),
        0);
    ASSERT_EQ(listen(other.fd, 8), 0);

    EXPECT_FALSE(run.start({{}, 0, false}));
    EXPECT_EQ(run.exit_status(), 1);
    EXPECT_TRUE(
        contains(read_until(run.err, "in use"), ".tty_rl: is in use\n"));
    EXPECT_NE(access(run.socket_path().c_str(), F_OK), 0);

    start({"--no-admin"});
    EXPECT_TRUE(settled(client()));
    EXPECT_EQ(ask("quit --yes"), "ok: ending\n");
    EXPECT_EQ(run.exit_status(), 0);
    EXPECT_EQ(access(run.admin_path().c_str(), F_OK), 0);
}

TEST_F(TtylinedAdmin, without_the_half_there_is_no_socket)
{
    start({"--no-admin"});
    EXPECT_TRUE(settled(client()));
    EXPECT_NE(access(run.admin_path().c_str(), F_OK), 0);
    EXPECT_TRUE(contains(ask("admin"), "hold: none\n"));
}

TEST_F(TtylinedAdmin, the_bytes_of_each_request_are_understood)
{
    const struct {
        bytes request;
        const char *text;
    } rows[] = {
        {{0x20, 0, 4, 0, 5, 0, 0, 0, 0x01, 0, 4, 0, 1, 0, 0, 0},
         "login ttyno=5"},
        {{0x20, 0, 4, 0, 0x2c, 1, 0, 0, 0x40, 0, 4, 0, 0x80, 0x25, 0, 0},
         "speed ttyno=300 value=9600"},
        {{0x20, 0, 4, 0, 0x2c, 1, 0, 0, 0x80, 0, 4, 0, 10, 0, 0, 0},
         "session timeout ttyno=300 value=10"},
        {{0x20, 0, 4, 0, 0x2c, 1, 0, 0, 0, 1, 4, 0, 255, 255, 255, 255},
         "exec timeout ttyno=300 value=4294967295"},
        {{0x20, 0, 4, 0, 0x2c, 1, 0, 0, 0, 8, 4, 0, 60, 0, 0, 0},
         "hold except=300 time=60"},
        {{0x20, 0, 4, 0, 0x32, 6, 0, 0, 0, 8, 4, 0, 8, 7, 0, 0},
         "hold except=none time=1800"},
        {{0, 0x10, 4, 0, 0, 0, 0, 0}, "release"},
    };

    start();
    const unique_fd fd = admin();
    for (const auto &row : rows) {
        ASSERT_TRUE(send(fd, row.request));
        const std::string text = traced("from admin");
        EXPECT_TRUE(
            contains(text, std::string("Z from admin 1: ") + row.text + "\n"))
            << text;
    }
}

TEST_F(TtylinedAdmin, the_library_is_understood)
{
    start();
    const unique_fd fd = client();
    ASSERT_EQ(take_line(fd, 6, 7, 1), 258);
    EXPECT_EQ(in_child(run,
                       [] {
                           return tty_login_info_audit(258, true) == 0 &&
                                  tty_cfg_update(258, "SPEED", 9600) == 0 &&
                                  tty_cfg_update(258, "SESSION_TIMEOUT", 10) ==
                                      0 &&
                                  tty_cfg_update(258, "EXEC_TIMEOUT", 5) == 0 &&
                                  tty_cfg_update(258, "TIMEOUT", 5) == -1 &&
                                  tty_login_info_audit(258, false) == 0 &&
                                  tty_hold_line(300, 60) == 0 &&
                                  tty_release_line() == 0;
                       }),
              0);
    const std::string text = traced("admin 1: disconnected");
    std::size_t at = 0;
    for (const char *request : {"login ttyno=258", "speed ttyno=258 value=9600",
                                "session timeout ttyno=258 value=10",
                                "exec timeout ttyno=258 value=5",
                                "hold except=300 time=60", "release"}) {
        at = text.find(std::string("from admin 1: ") + request + "\n", at);
        ASSERT_NE(at, std::string::npos) << request << '\n' << text;
    }
    EXPECT_EQ(count_of(text, "from admin"), 6) << text;
    EXPECT_EQ(ask("admin"), "hold: none\n"
                            "waiting: 0\n"
                            "line  login speed      session-timeout "
                            "exec-timeout\n"
                            "258   yes   9600       10              5\n");
}

TEST_F(TtylinedAdmin, requests_may_arrive_byte_by_byte)
{
    start();
    const unique_fd other = client();
    const unique_fd fd = admin();
    const bytes all =
        about_line(1585, 0x1, 1) + release() + about_line(7, 0x40, 300);
    for (unsigned char byte : all) {
        ASSERT_TRUE(send(fd, {byte}));
        ASSERT_TRUE(settled(other));
    }
    const std::string text = traced("speed");
    EXPECT_TRUE(contains(text, "admin 1: login ttyno=1585\n"));
    EXPECT_TRUE(contains(text, "admin 1: release\n"));
    EXPECT_TRUE(contains(text, "admin 1: speed ttyno=7 value=300\n"));
}

TEST_F(TtylinedAdmin, many_requests_arrive_in_one_read)
{
    start();
    // Of 8 and of 16 bytes, so that reads end within one.
    bytes all;
    for (uint32_t ttyno = 0; ttyno < 1586; ttyno++) {
        all = std::move(all) + about_line(ttyno, 0x80, ttyno + 1);
        if (ttyno % 3 == 0) {
            all = std::move(all) + release();
        }
    }
    ASSERT_TRUE(tell(all));
    EXPECT_FALSE(contains(traced("admin 1: disconnected"), "dropped"));
    const std::string table = ask("admin");
    EXPECT_EQ(count_of(table, "\n"), 3 + 1586);
    for (int ttyno : {0, 257, 258, 1585}) {
        char row[64];
        std::snprintf(row, sizeof row, "\n%-5d no    -          %-15d -\n",
                      ttyno, ttyno + 1);
        EXPECT_TRUE(contains(table, row)) << row;
    }
}

TEST_F(TtylinedAdmin, a_peer_that_breaks_the_format_is_dropped)
{
    const struct {
        bytes request;
        const char *why;
    } rows[] = {
        {item(0x20, 5, 5), "item 0x0020 of length 5"},
        {item(0x20, 5, 0), "item 0x0020 of length 0"},
        {item(0x1000, 0, 8), "item 0x1000 of length 8"},
        {item(0x20, 5) + item(0x1, 1, 3), "item 0x0001 of length 3"},
        {item(0x20, 5) + item(0x20, 5), "item 0x0020 after a line number"},
        {item(0x20, 5) + release(), "item 0x1000 after a line number"},
        {item(0x20, 5) + item(0x2, 5), "unknown item 0x0002"},
        {item(0x1, 1), "item 0x0001 without a line number"},
        {item(0x40, 1), "item 0x0040 without a line number"},
        {item(0x80, 1), "item 0x0080 without a line number"},
        {item(0x100, 1), "item 0x0100 without a line number"},
        {item(0x800, 1), "item 0x0800 without a line number"},
        {item(0, 0), "unknown item 0x0000"},
        {item(0xffff, 0xffffffff, 0xffff), "unknown item 0xffff"},
        {bytes(100, 'x'), "unknown item 0x7878"},
    };

    start();
    const unique_fd other = admin();
    int number = 1;
    for (const auto &row : rows) {
        const unique_fd fd = admin();
        // What follows is not obeyed, what came before is.
        ASSERT_TRUE(
            send(fd, about_line(9, 0x40, 1) + row.request + hold(5, 0)));
        EXPECT_TRUE(waits_for_end(fd));
        number++;
        const std::string name = "admin " + std::to_string(number) + ": ";
        ASSERT_TRUE(send(other, about_line(8, 0x40, 1)));
        const std::string text = traced("ttyno=8");
        EXPECT_EQ(count_of(text, name + "speed ttyno=9 value=1\n"), 1);
        EXPECT_EQ(count_of(text, "note " + name + "dropped, " + row.why + "\n"),
                  1)
            << text;
        // Connected, obeyed, dropped.
        EXPECT_EQ(count_of(text, name), 3) << text;
    }
    EXPECT_TRUE(contains(ask("admin"), "hold: none\n"));
}

TEST_F(TtylinedAdmin, a_request_that_means_nothing_is_ignored)
{
    const struct {
        bytes request;
        const char *text;
    } rows[] = {
        {about_line(1586, 0x1, 1), "login ttyno=1586 is ignored, no such line"},
        {about_line(0xffffffff, 0x40, 9),
         "speed ttyno=4294967295 value=9 is ignored, no such line"},
        {about_line(0x80000000, 0x80, 9),
         "session timeout ttyno=2147483648 value=9 is ignored, no such line"},
        {about_line(80000, 0x100, 9),
         "exec timeout ttyno=80000 value=9 is ignored, no such line"},
        {hold(1587, 0), "hold except=1587 time=0 is ignored, no such line"},
        {hold(5, 1801),
         "hold except=5 time=1801 is ignored, the time is too long"},
        {about_line(5, 0x1, 0), "login ttyno=5 is ignored, unknown value 0"},
        {item(0x1000, 1), "release is ignored, unknown value 1"},
    };

    start();
    const unique_fd fd = admin();
    for (const auto &row : rows) {
        ASSERT_TRUE(send(fd, row.request));
        const std::string text = traced("is ignored");
        EXPECT_TRUE(
            contains(text, std::string("note admin 1: ") + row.text + "\n"))
            << text;
    }
    const std::string none = "hold: none\nwaiting: 0\n";
    EXPECT_EQ(ask("admin").rfind(none, 0), 0U);
    EXPECT_EQ(count_of(ask("admin"), "\n"), 3);
    ASSERT_TRUE(send(fd, about_line(5, 0x1, 1)));
    EXPECT_TRUE(
        contains(traced("login ttyno=5"), "from admin 1: login ttyno=5\n"));
}

TEST_F(TtylinedAdmin, a_peer_may_vanish_in_the_middle)
{
    start();
    const bytes whole = about_line(5, 0x1, 1);
    for (std::size_t length = 1; length < whole.size(); length++) {
        const auto end = whole.begin() + static_cast<std::ptrdiff_t>(length);
        ASSERT_TRUE(tell(bytes(whole.begin(), end)));
        const std::string text = traced("left");
        EXPECT_TRUE(contains(text, "note admin " + std::to_string(length) +
                                       ": left in the middle of a request\n"))
            << text;
    }
    EXPECT_FALSE(contains(ask("admin"), "\n5 "));
    EXPECT_TRUE(settled(client()));
}

TEST_F(TtylinedAdmin, more_connections_than_descriptors_are_survived)
{
    start({}, 16);
    const unique_fd fd = client();
    ASSERT_TRUE(settled(fd));
    std::vector<unique_fd> peers;
    for (uint32_t i = 0; i < 40; i++) {
        peers.push_back(admin());
        ASSERT_GE(peers.back().fd, 0);
        ASSERT_TRUE(send(peers.back(), about_line(i, 0x1, 1)));
    }
    ASSERT_TRUE(contains(traced("accept:"), "accept: Too many open files\n"));
    ASSERT_TRUE(settled(fd));
    EXPECT_LT(count_of(ask("admin"), " yes "), 40);
    // All that waited are served once the others leave.
    peers.clear();
    const long long deadline = now_ms() + 20000;
    while (count_of(ask("admin"), " yes ") < 40 && now_ms() < deadline) {
        usleep(10000);
    }
    EXPECT_EQ(count_of(ask("admin"), " yes "), 40);
}

// Sends from several threads at once, each about a line of its own.
static bool send_from_threads(unsigned threads, unsigned requests)
{
    std::vector<std::thread> senders;
    std::vector<unsigned> failed(threads);

    for (unsigned t = 0; t < threads; t++) {
        senders.emplace_back([t, requests, &failed] {
            for (unsigned i = 1; i <= requests; i++) {
                if (tty_cfg_update(300 + t, "SPEED", i) != 0) {
                    failed[t]++;
                }
            }
        });
    }
    for (std::thread &sender : senders) {
        sender.join();
    }
    return failed == std::vector<unsigned>(threads);
}

TEST_F(TtylinedAdmin, requests_of_eight_threads_arrive_whole)
{
    start();
    EXPECT_EQ(in_child(run,
                       [] {
                           return send_from_threads(8, 100);
                       }),
              0);
    const std::string text = traced("admin 1: disconnected");
    EXPECT_EQ(count_of(text, "from admin 1: speed ttyno=30"), 800);
    EXPECT_FALSE(contains(text, "dropped"));
    EXPECT_FALSE(contains(text, "admin 2"));
    const std::string table = ask("admin");
    EXPECT_EQ(count_of(table, " no    100 "), 8) << table;
}

static bool send_some(unsigned ttyno, unsigned requests)
{
    bool sent = true;

    for (unsigned i = 1; i <= requests; i++) {
        sent = tty_cfg_update(ttyno, "EXEC_TIMEOUT", i) == 0 && sent;
    }
    return sent;
}

static bool send_with_child()
{
    if (tty_cfg_update(300, "SPEED", 1) != 0) {
        return false;
    }
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(getppid() == parent && send_some(301, 100) ? 0 : 1);
    }
    const bool sent = send_some(300, 100);
    return wait_for_child(child) == 0 && sent;
}

TEST_F(TtylinedAdmin, a_forked_child_shares_the_stream)
{
    start();
    EXPECT_EQ(in_child(run, send_with_child), 0);
    const std::string text = traced("admin 1: disconnected");
    EXPECT_EQ(count_of(text, "connected, process"), 1);
    EXPECT_EQ(count_of(text, "exec timeout ttyno=300 value="), 100);
    EXPECT_EQ(count_of(text, "exec timeout ttyno=301 value="), 100);
    EXPECT_FALSE(contains(text, "dropped"));
}

TEST_F(TtylinedAdmin, what_is_known_of_a_line_ends_with_its_session)
{
    start();
    unique_fd fd = client();
    const unique_fd other = client();
    const unique_fd tool = admin();
    ASSERT_EQ(take_line(fd, 6, 7, 1), 258);
    ASSERT_EQ(take_line(fd, 6, 8, 2), 259);
    ASSERT_TRUE(send(tool, about_line(258, 0x1, 1) + about_line(258, 0x40, 9) +
                               about_line(259, 0x100, 5)));
    EXPECT_TRUE(contains(ask("admin"),
                         "\n258   yes   9          -               "
                         "-\n"
                         "259   no    -          -               "
                         "5\n"));
    ASSERT_TRUE(send_record(fd, line_clean(258, 0)));
    ASSERT_TRUE(settled(fd));
    EXPECT_FALSE(contains(ask("admin"), "\n258 "));
    EXPECT_TRUE(contains(ask("admin"), "\n259 "));
    fd.reset();
    ASSERT_TRUE(contains(traced("client 1: disconnected"), "disconnected"));
    EXPECT_FALSE(contains(ask("admin"), "\n259 "));

    // A login that comes too late is not the next user's.
    ASSERT_TRUE(send(tool, about_line(258, 0x1, 1)));
    EXPECT_TRUE(contains(ask("admin"), "\n258   yes "));
    ASSERT_EQ(take_line(other, 6, 7, 1), 258);
    EXPECT_FALSE(contains(ask("admin"), "\n258 "));
}

TEST_F(TtylinedAdmin, a_peer_that_floods_delays_nobody)
{
    start();
    run.out.reset();
    const unique_fd flood = admin();
    const unique_fd fd = client();
    bytes many;
    for (int i = 0; i < 256; i++) {
        many = std::move(many) + about_line(300, 0x40, 1);
    }
    for (int i = 0; i < 200; i++) {
        ASSERT_TRUE(send(flood, many));
        ASSERT_TRUE(settled(fd));
    }
    ASSERT_EQ(take_line(fd, 6, 7, 1), 258);
}
