// When the loop calls the steps that move a session's data, and when not.
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"

// The steps of one line, as the pending ones are called again.
static int g_left;

static int leave_some(int)
{
    char buf[64];
    static_cast<void>(recv(g_left, buf, sizeof buf, MSG_DONTWAIT));
    static int calls;
    errno = EAGAIN;
    return ++calls < 4 ? 4 - calls : 0;
}

static int remember(int, int, int sockfd, int)
{
    g_left = sockfd;
    return 0;
}

TEST_F(SystemTest, a_step_with_data_left_over_is_called_again_until_done)
{
    FakeInetd inetd;
    const int port = free_port(AF_INET);
    Daemon daemon([&] {
        vc_reg reg = relaying(AF_INET, port, nullptr, 6);
        reg.read_func = leave_some;
        reg.alloc_func = remember;
        must_register(reg);
    });
    InetdConnection connection = inetd.accept();
    const Session session = log_in(&connection, [&] {
        return connect_port(AF_INET, port);
    });
    ASSERT_GE(session.client, 0);
    ASSERT_TRUE(write_all(session.client, "x"));
    EXPECT_TRUE(logged("vc in data ret 3.\r\n"));
    EXPECT_TRUE(logged("vc in1 data ret 2.\r\n"));
    EXPECT_TRUE(logged("vc in1 data ret 1.\r\n"));
    EXPECT_EQ(log().find("data ret 0"), std::string::npos);
    close(session.client);
}

static int leave_some_then_fail(int)
{
    char buf[64];
    static int calls;
    static_cast<void>(recv(g_left, buf, sizeof buf, MSG_DONTWAIT));
    errno = EAGAIN;
    return ++calls == 1 ? 1 : -1;
}

TEST_F(SystemTest, a_step_that_fails_when_tried_again_ends_its_session)
{
    FakeInetd inetd;
    const int port = free_port(AF_INET);
    Daemon daemon([&] {
        vc_reg reg = relaying(AF_INET, port, nullptr, 6);
        reg.read_func = leave_some_then_fail;
        reg.alloc_func = remember;
        must_register(reg);
    });
    InetdConnection connection = inetd.accept();
    const Session session = log_in(&connection, [&] {
        return connect_port(AF_INET, port);
    });
    ASSERT_GE(session.client, 0);
    ASSERT_TRUE(write_all(session.client, "x"));
    const auto clean = connection.receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->vc_flag, 0x002u);
    EXPECT_EQ(clean->pid, session.pid);
    EXPECT_TRUE(logged("vc in data ret 1.\r\n"));
    EXPECT_EQ(log().find("vc in1 data"), std::string::npos);
    EXPECT_TRUE(ended(session.client));
    // The loop goes on: the next client is reported.
    const int next = connect_port(AF_INET, port);
    ASSERT_GE(next, 0);
    const auto report = connection.receive();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->vc_flag, 0x001u);
    close(next);
    close(session.client);
}

TEST_F(SystemTest, sessions_of_protocols_4_5_and_11_are_not_relayed)
{
    FakeInetd inetd;
    const int port = free_port(AF_INET);
    g_session_program = [](int, const char *) -> int {
        // The connection is the program's own.
        for (;;) {
            pause();
        }
    };
    for (const unsigned int protocol : {4u, 5u, 11u}) {
        Daemon daemon([&] {
            must_register(relaying(AF_INET, port, nullptr, protocol));
            vc_deal_service_listen(true, static_cast<int>(protocol));
        });
        InetdConnection connection = inetd.accept();
        const Session session = log_in(&connection, [&] {
            return connect_port(AF_INET, port);
        });
        ASSERT_GE(session.client, 0);
        ASSERT_TRUE(write_all(session.client, "never read\n"));
        close(session.client);
        // Neither the data nor the end of the connection is looked at.
        EXPECT_TRUE(connection.silent(200));
        EXPECT_TRUE(process_runs(session.pid));
    }
}

// A machine that has no TIPC cannot accept these connections; their sessions
// are given one of another service.
TEST_F(SystemTest, sessions_of_protocols_3_and_8_are_not_relayed)
{
    FakeInetd inetd;
    const int port = free_port(AF_INET);
    const int tipc_port = 1;
    g_session_program = [](int, const char *) -> int {
        // The connection is the program's own.
        for (;;) {
            pause();
        }
    };
    for (const unsigned int protocol : {3u, 8u}) {
        Daemon daemon([&] {
            must_register(relaying(AF_INET, port, nullptr, 6));
            must_register(relaying(AF_TIPC, tipc_port, nullptr, protocol));
        });
        InetdConnection connection = inetd.accept();
        const auto request = connection.receive();
        ASSERT_TRUE(request);
        const auto tipc_request = connection.receive();
        ASSERT_TRUE(tipc_request);
        EXPECT_EQ(tipc_request->socktype, AF_TIPC);
        ASSERT_TRUE(connection.permit(*request));
        int client = -1;
        ASSERT_TRUE(eventually([&] {
            return (client = connect_port(AF_INET, port)) >= 0;
        }));
        auto report = connection.receive();
        ASSERT_TRUE(report);
        report->port = tipc_port;
        ASSERT_TRUE(connection.assign(*report, 300));
        const auto success = connection.receive();
        ASSERT_TRUE(success);
        EXPECT_EQ(success->vc_flag, 0x020u);
        ASSERT_TRUE(write_all(client, "never read\n"));
        close(client);
        EXPECT_TRUE(connection.silent(200));
        EXPECT_TRUE(process_runs(success->pid));
    }
}

static int nothing(int)
{
    return 0;
}

// What an earlier call left in errno keeps a pass from being made again: the
// loop's known weakness.
static int leave_some_with_stale_errno(int)
{
    char byte = 0;
    static_cast<void>(recv(g_left, &byte, 1, MSG_DONTWAIT));
    errno = byte == 'i' ? EINTR : EAGAIN;
    // Called without input, it has something left once more.
    static int idle;
    return byte != 0 || ++idle == 1 ? 1 : 0;
}

TEST_F(SystemTest, after_a_stale_interruption_nothing_is_tried_again)
{
    FakeInetd inetd;
    const std::string name = path("/s");
    g_session_program = [](int, const char *) -> int {
        for (;;) {
            pause();
        }
    };
    Daemon daemon([&] {
        vc_reg reg = relaying(AF_UNIX, 0, name.c_str(), 7);
        reg.read_func = leave_some_with_stale_errno;
        reg.write_func = nothing;
        reg.alloc_func = remember;
        must_register(reg);
    });
    InetdConnection connection = inetd.accept();
    const Session session = log_in(&connection, [&] {
        return connect_path(name);
    });
    ASSERT_GE(session.client, 0);
    ASSERT_TRUE(write_all(session.client, "i"));
    ASSERT_TRUE(logged("vc in data ret 1.\r\n"));
    // Thirty times the time after which it would be tried again.
    EXPECT_TRUE(connection.silent(300));
    EXPECT_EQ(log().find("vc in1 data"), std::string::npos);
    ASSERT_TRUE(write_all(session.client, "a"));
    EXPECT_TRUE(eventually([&] {
        const std::string text = log();
        return text.find("vc in1 data ret 1.") != std::string::npos;
    }));
    close(session.client);
}

// Output that the step leaves over.
static int leave_some_output(int)
{
    char buf[64];
    static int calls;
    fcntl(g_left, F_SETFL, O_NONBLOCK);
    static_cast<void>(!read(g_left, buf, sizeof buf));
    errno = EAGAIN;
    return ++calls < 3 ? 3 - calls : 0;
}

static int remember_master(int, int, int, int master_fd)
{
    g_left = master_fd;
    return 0;
}

TEST_F(SystemTest, output_left_over_is_tried_again_until_done)
{
    FakeInetd inetd;
    const std::string name = path("/s");
    g_session_program = [](int, const char *) -> int {
        static_cast<void>(!write(1, "x", 1));
        for (;;) {
            pause();
        }
    };
    Daemon daemon([&] {
        vc_reg reg = relaying(AF_UNIX, 0, name.c_str(), 7);
        reg.write_func = leave_some_output;
        reg.alloc_func = remember_master;
        must_register(reg);
    });
    InetdConnection connection = inetd.accept();
    const Session session = log_in(&connection, [&] {
        return connect_path(name);
    });
    ASSERT_GE(session.client, 0);
    EXPECT_TRUE(logged("vc out data ret 2.\r\n"));
    EXPECT_TRUE(logged("vc out1 data ret 1.\r\n"));
    close(session.client);
}
