// The main loop as its two ends see it.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"

using Clock = std::chrono::steady_clock;

TEST_F(SystemTest, without_a_service_the_start_fails_at_once)
{
    FakeInetd inetd;
    EXPECT_EQ(vc_service_start(), -1);
    EXPECT_TRUE(inetd.nobody_connects(50));
    EXPECT_EQ(log(), "");
}

TEST_F(SystemTest, without_an_inetd_two_lines_are_logged_per_attempt)
{
    Daemon daemon([] {
        must_register(relaying(AF_INET, 23, nullptr, 6));
    });
    const std::string pid = std::to_string(daemon.pid());
    EXPECT_TRUE(logged("(vc:" + pid + "): connect inetd vc_fd -1\n"));
    const size_t before = daemon.descriptors().size();
    EXPECT_TRUE(logged("(vc:" + pid + "): connect inetd vc_fd -1\n", 3));
    EXPECT_TRUE(logged("vc: connect inetd fail, errno:2, No such file or "
                       "directory\n",
                       3));
    EXPECT_TRUE(logged("vc: sock fail, err No such file or directory\n", 3));
    EXPECT_TRUE(daemon.settles_at(before));
}

TEST_F(SystemTest, an_inetd_that_comes_late_is_found)
{
    Daemon daemon([] {
        must_register(relaying(AF_INET, 23, nullptr, 6));
    });
    ASSERT_TRUE(logged("vc: connect inetd fail"));
    FakeInetd inetd;
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->pid, daemon.pid());
    EXPECT_TRUE(logged("): after vc_open_listen ret 0\n") ||
                logged("): after vc_open_listen ret 156\n"));
}

TEST_F(SystemTest, every_service_is_announced_once)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(relaying(AF_INET, 23, nullptr, 6));
        must_register(relaying(AF_INET6, 23, nullptr, 6));
        must_register(relaying(AF_UNIX, 0, "/run/nowhere/x", 7));
        must_register(relaying(AF_INET, 24, nullptr, 11));
    });
    InetdConnection connection = inetd.accept();
    for (const int family : {2, 10, 1}) {
        const auto request = connection.receive();
        ASSERT_TRUE(request);
        EXPECT_EQ(request->socktype, family);
    }
    EXPECT_TRUE(connection.silent(300));
}

// Both clients wait before the daemon looks: it is held up meanwhile by the
// access check of the first one.
static int g_gate[2];

static bool wait_at_gate(const sockaddr *, const sockaddr *)
{
    char byte;
    return read(g_gate[0], &byte, 1) == 1;
}

TEST_F(SystemTest, one_connection_is_taken_per_turn_first_service_first)
{
    FakeInetd inetd;
    const int first = free_port(AF_INET);
    const int second = free_port(AF_INET);
    ASSERT_EQ(pipe2(g_gate, O_CLOEXEC), 0);
    Daemon daemon([&] {
        vc_reg reg = relaying(AF_INET, first, nullptr, 6);
        reg.acl_func = wait_at_gate;
        must_register(reg);
        must_register(relaying(AF_INET, second, nullptr, 1));
    });
    InetdConnection connection = inetd.accept();
    for (int i = 0; i < 2; i++) {
        const auto request = connection.receive();
        ASSERT_TRUE(request);
        ASSERT_TRUE(connection.permit(*request));
    }
    ASSERT_TRUE(logged("vc: bind v4 success\r\n", 2));
    int clients[4] = {-1, -1, -1, -1};
    ASSERT_TRUE(eventually([&] {
        return (clients[0] = connect_port(AF_INET, first)) >= 0;
    }));
    ASSERT_TRUE(logged("vc: new connect, fd="));
    // The loop stands at the gate now; two more come in.
    clients[1] = connect_port(AF_INET, second);
    clients[2] = connect_port(AF_INET, first);
    ASSERT_EQ(write(g_gate[1], "xx", 2), 2);
    const int expected[] = {first, first, second};
    for (const int port : expected) {
        const auto report = connection.receive();
        ASSERT_TRUE(report);
        EXPECT_EQ(report->port, port);
    }
    for (const int fd : clients) {
        close(fd);
    }
    close(g_gate[0]);
    close(g_gate[1]);
}

TEST_F(SystemTest, a_service_registered_while_the_loop_runs_is_announced)
{
    FakeInetd inetd;
    static std::thread other;
    Daemon daemon([] {
        must_register(relaying(AF_INET, 23, nullptr, 6));
        other = std::thread([] {
            // The loop looks by itself at its next turn, which the signal
            // brings about at once.
            while (__atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) < 0) {
                usleep(1000);
            }
            must_register(relaying(AF_INET, 24, nullptr, 6));
            kill(getpid(), SIGHUP);
        });
        other.detach();
    });
    InetdConnection connection = inetd.accept();
    ASSERT_TRUE(connection.receive());
    // A wake-up that comes just before the wait is seen by the next one.
    const auto end = Clock::now() + std::chrono::seconds(15);
    std::optional<tty_cmsg> request;
    while (!request && Clock::now() < end) {
        request = connection.receive(200);
        kill(daemon.pid(), SIGHUP);
    }
    ASSERT_TRUE(request);
    EXPECT_EQ(request->port, 24);
}

TEST_F(SystemTest, hangups_wake_the_loop_and_do_not_end_it)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(relaying(AF_INET, 23, nullptr, 6));
    });
    InetdConnection connection = inetd.accept();
    ASSERT_TRUE(connection.receive());
    for (int i = 0; i < 5000; i++) {
        kill(daemon.pid(), SIGHUP);
    }
    EXPECT_TRUE(daemon.alive());
    // Still at work.
    tty_cmsg clear = {};
    clear.vc_flag = 0x002;
    clear.ttyno = 300;
    ASSERT_TRUE(connection.send(clear));
    EXPECT_TRUE(logged("vc: client (ttyno=300) clear\r\n"));
}

TEST_F(SystemTest, quit_interrupt_and_pipe_signals_are_ignored)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(relaying(AF_INET, 23, nullptr, 6));
    });
    InetdConnection connection = inetd.accept();
    ASSERT_TRUE(connection.receive());
    for (const int signo : {SIGQUIT, SIGINT, SIGPIPE}) {
        kill(daemon.pid(), signo);
    }
    tty_cmsg clear = {};
    clear.vc_flag = 0x002;
    ASSERT_TRUE(connection.send(clear));
    EXPECT_TRUE(logged("vc: client (ttyno=0) clear\r\n"));
}

TEST_F(SystemTest, a_protocol_opened_by_the_daemon_is_announced_at_once)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(relaying(AF_INET, 23, nullptr, 6));
        must_register(relaying(AF_INET, 24, nullptr, 11));
        std::thread([] {
            while (__atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) < 0) {
                usleep(1000);
            }
            vc_deal_service_listen(true, 11);
        }).detach();
    });
    InetdConnection connection = inetd.accept();
    const auto first = connection.receive();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->port, 23);
    // A signal that comes before the wait is lost for that wait; the next one
    // brings the loop round.
    std::optional<tty_cmsg> second;
    for (int i = 0; i < 50 && !second; i++) {
        second = connection.receive(200);
        kill(daemon.pid(), SIGHUP);
    }
    ASSERT_TRUE(second);
    EXPECT_EQ(second->port, 24);
    EXPECT_EQ(second->protocol, 11);
}

TEST_F(SystemTest, an_exited_program_is_torn_down_before_the_next_wait)
{
    FakeInetd inetd;
    const int port = free_port(AF_INET);
    g_session_program = [](int, const char *) -> int {
        return 0;
    };
    Daemon daemon([&] {
        must_register(relaying(AF_INET, port, nullptr, 4));
    });
    InetdConnection connection = inetd.accept();
    const Session session = log_in(&connection, [&] {
        return connect_port(AF_INET, port);
    });
    ASSERT_GE(session.client, 0);
    const auto clean = connection.receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->vc_flag, 0x002u);
    EXPECT_EQ(clean->pid, session.pid);
    EXPECT_TRUE(ended(session.client));
    EXPECT_TRUE(daemon.has_no_children());
    close(session.client);
}

TEST_F(SystemTest, with_protocol_10_first_children_are_reaped_by_the_loop)
{
    FakeInetd inetd;
    const int port = free_port(AF_INET);
    g_session_program = [](int, const char *) -> int {
        return 0;
    };
    Daemon daemon([&] {
        must_register(relaying(AF_UNIX, 0, "/run/nowhere/x", 10));
        must_register(relaying(AF_INET, port, nullptr, 6));
    });
    InetdConnection connection = inetd.accept();
    ASSERT_TRUE(connection.receive());
    const Session session = log_in(&connection, [&] {
        return connect_port(AF_INET, port);
    });
    ASSERT_GE(session.client, 0);
    const auto clean = connection.receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->pid, session.pid);
    // The next turn reaps what is left.
    for (int i = 0; i < 100 && !daemon.children().empty(); i++) {
        kill(daemon.pid(), SIGHUP);
        usleep(10000);
    }
    EXPECT_TRUE(daemon.has_no_children());
    close(session.client);
}

TEST_F(SystemTest, an_idle_loop_sleeps)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(relaying(AF_INET, 23, nullptr, 6));
    });
    InetdConnection connection = inetd.accept();
    ASSERT_TRUE(connection.receive());
    ASSERT_TRUE(logged("): after vc_open_listen ret "));
    const std::string before = log();
    // Nothing is logged, so nothing is connected, accepted or read.
    EXPECT_TRUE(connection.silent(500));
    EXPECT_EQ(log(), before);
}
