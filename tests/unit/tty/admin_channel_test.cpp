#include "tests/support/fault_row.h"
#include "tty/admin_channel.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <thread>

#include <ttyline/tty.h>

#include "tests/unit/tty/admin_fixture.h"
#include "tty/lock.h"

class AdminChannelTest : public AdminTest
{
  protected:
    // A request that ends with what it left in the channel.
    static int send_item(uint16_t type, uint32_t value)
    {
        admin_request request = {};

        if (!admin_enter()) {
            return -1;
        }
        admin_append(&request, type, value);
        const int result = admin_send(&request);
        ttylib_leave();
        return result;
    }

    static bool signals_are_free()
    {
        sigset_t now;
        pthread_sigmask(SIG_SETMASK, nullptr, &now);
        return sigismember(&now, SIGTERM) == 0 &&
               sigismember(&now, SIGPIPE) == 0;
    }

    // Counts the messages in the log when a socket is closed.
    static void watch_close(const std::string &root)
    {
        g_log = root + "/mng/tty/.tty_lib_dump.txt";
        g_logged = -1;
        fault::run(
            "close", 1,
            [] {
                g_logged = static_cast<int>(support::lines_of(g_log).size());
            },
            1, fault::only_path("socket:"));
    }

    static std::string pid_text()
    {
        return std::to_string(getpid());
    }

    static std::string g_log;
    static int g_logged; // -1: no socket was closed
};

std::string AdminChannelTest::g_log;
int AdminChannelTest::g_logged;

TEST_F(AdminChannelTest, connect_reaches_the_socket_in_the_runtime_directory)
{
    start();
    const int fd = ttylib_connect();
    EXPECT_GE(fd, 0);
    EXPECT_TRUE(take());
    EXPECT_TRUE(log().empty());
    close(fd);
}

TEST_F(AdminChannelTest, the_address_has_its_full_110_bytes)
{
    start();
    const int calls = fault::watch("connect", fault::only_what(110));
    const int fd = ttylib_connect();
    EXPECT_EQ(fault::seen(calls), 1);
    close(fd);
}

TEST_F(AdminChannelTest, the_send_buffer_is_8192_bytes)
{
    start();
    const int fd = ttylib_connect();
    int size = 0;
    socklen_t length = sizeof size;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length), 0);
    // The kernel doubles what it is told.
    EXPECT_EQ(size, 16384);
    close(fd);
}

// It is inherited like any descriptor and lives as long as the process,
// whatever that executes.
TEST_F(AdminChannelTest, the_connection_is_blocking_and_outlives_an_exec)
{
    start();
    const int fd = ttylib_connect();
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), 0);
    close(fd);
}

TEST_F(AdminChannelTest, a_socket_that_cannot_be_made_is_reported)
{
    fault_row("ttylib_connect", "socket", "EMFILE", "-1",
              "ttylib(%d): sock create fail, err[%d]:%s\n", "");
    start();
    fault::fail("socket", 1, EMFILE);
    EXPECT_EQ(ttylib_connect(), -1);
    EXPECT_EQ(log(), (messages{"ttylib(" + pid_text() +
                               "): sock create fail, err[24]:" +
                               strerror(EMFILE) + "\n"}));
}

TEST_F(AdminChannelTest, a_send_buffer_that_cannot_be_set_is_only_reported)
{
    fault_row("ttylib_connect", "setsockopt", "ENOBUFS", "the connection",
              "ttylib(%d):%s setsockopt sndbuf fail, err[%d]:%s.\r\n", "");
    start();
    fault::fail("setsockopt", 1, ENOBUFS);
    const int fd = ttylib_connect();
    EXPECT_GE(fd, 0);
    EXPECT_EQ(log(),
              (messages{"ttylib(" + pid_text() +
                        "):ttylib_connect setsockopt sndbuf fail, err[105]:" +
                        strerror(ENOBUFS) + ".\r\n"}));
    close(fd);
}

TEST_F(AdminChannelTest, a_path_of_100_characters_cannot_be_built)
{
    const std::string name = "/mng/tty/.tty_rl";
    const std::string root = move_runtime_directory(name, 100);
    watch_close(root);
    EXPECT_EQ(ttylib_connect(), -1);
    EXPECT_EQ(g_logged, 0);
    EXPECT_TRUE(kept_descriptors().empty());
    EXPECT_EQ(support::lines_of(root + "/mng/tty/.tty_lib_dump.txt").size(),
              1u);
    EXPECT_NE(support::slurp(root + "/mng/tty/.tty_lib_dump.txt")
                  .find(" ttylib:ttylib_connect make path fail\r\n"),
              std::string::npos);
}

TEST_F(AdminChannelTest, a_path_of_99_characters_is_tried)
{
    const std::string name = "/mng/tty/.tty_rl";
    const std::string root = move_runtime_directory(name, 99);
    EXPECT_EQ(ttylib_connect(), -1);
    EXPECT_NE(support::slurp(root + "/mng/tty/.tty_lib_dump.txt")
                  .find(" " + connect_failed(ENOENT)),
              std::string::npos);
}

TEST_F(AdminChannelTest, an_absent_daemon_is_reported)
{
    fault_row("ttylib_connect", "connect", "ENOENT", "-1",
              "ttylib: sock connect fail, err[%d]:%s\n",
              "the socket closed, after the line");
    watch_close(runtime_dir);
    EXPECT_EQ(ttylib_connect(), -1);
    EXPECT_EQ(log(), (messages{connect_failed(ENOENT)}));
    // The reason stands in the log before the socket is closed.
    EXPECT_EQ(g_logged, 1);
    EXPECT_TRUE(kept_descriptors().empty());
}

TEST_F(AdminChannelTest, a_daemon_that_does_not_listen_is_reported)
{
    fault_row("ttylib_connect", "connect", "ECONNREFUSED", "-1",
              "ttylib: sock connect fail, err[%d]:%s\n", "the socket closed");
    start();
    stop();
    EXPECT_EQ(ttylib_connect(), -1);
    EXPECT_EQ(log(), (messages{connect_failed(ECONNREFUSED)}));
}

TEST_F(AdminChannelTest, every_request_connects_anew_until_one_succeeds)
{
    fault_row("admin_enter", "connect", "ENOENT", "false",
              "ttylib: sock connect fail, err[%d]:%s\n",
              "the next request connects again");
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), -1);
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), -1);
    EXPECT_EQ(log(),
              (messages{connect_failed(ENOENT), connect_failed(ENOENT)}));
    start();
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), 0);
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), 0);
    ASSERT_TRUE(take());
    EXPECT_EQ(received(), "00 10 04 00 00 00 00 00 00 10 04 00 00 00 00 00");
    EXPECT_FALSE(someone_waits());
}

TEST_F(AdminChannelTest, a_failed_connect_frees_lock_and_signals)
{
    fault_row("admin_enter", "connect", "ENOENT", "false", "",
              "lock and signals free");
    EXPECT_FALSE(admin_enter());
    EXPECT_TRUE(signals_are_free());
    std::atomic<bool> taken{false};
    std::thread other([&] {
        tty_lib_lock();
        taken = true;
        tty_lib_unlock();
    });
    other.join();
    EXPECT_TRUE(taken);
}

TEST_F(AdminChannelTest, signals_are_blocked_while_a_request_is_sent)
{
    static bool free_inside;
    start();
    free_inside = true;
    fault::run("write", 1, [] {
        free_inside = signals_are_free();
    });
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), 0);
    EXPECT_FALSE(free_inside);
    EXPECT_TRUE(signals_are_free());
}

TEST_F(AdminChannelTest, the_connection_is_made_with_lock_and_signals_held)
{
    static bool free_inside;
    static bool others_enter;
    start();
    free_inside = others_enter = true;
    fault::run("connect", 1, [] {
        free_inside = signals_are_free();
        std::atomic<bool> entered{false};
        std::thread other([&] {
            tty_lib_lock();
            entered = true;
            tty_lib_unlock();
        });
        usleep(50000);
        others_enter = entered;
        // The lock is recursive and ours: this lets the other thread through.
        tty_lib_unlock();
        other.join();
        tty_lib_lock();
    });
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), 0);
    EXPECT_FALSE(free_inside);
    EXPECT_FALSE(others_enter);
}

TEST_F(AdminChannelTest, a_lost_daemon_stays_lost)
{
    fault_row("admin_send", "write", "EPIPE",
              "-1, at every request from then on",
              "ttylib: msg send fail, err[%d]:%s\n",
              "the broken connection; no new one is made");
    signal(SIGPIPE, SIG_IGN);
    start();
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), 0);
    ASSERT_TRUE(take());
    drop_connection();
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), -1);
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), -1);
    EXPECT_EQ(log(), (messages{send_failed(EPIPE), send_failed(EPIPE)}));
    EXPECT_FALSE(someone_waits());
    EXPECT_EQ(kept_descriptors().size(), 2u); // the listener is ours
}

TEST_F(AdminChannelTest, sigpipe_comes_after_the_lock_is_free)
{
    fault_row("admin_send", "write", "EPIPE", "SIGPIPE, unless it is ignored",
              "ttylib: msg send fail, err[%d]:%s\n",
              "the line is logged before the signal is delivered");
    start();
    // The signal ends a process that does not ignore it, once the request is
    // over: by then the failure is in the log.
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGPIPE, SIG_DFL);
        send_item(TTYLIB_TLV_RELEASE, 0);
        if (take()) {
            drop_connection();
        }
        send_item(TTYLIB_TLV_RELEASE, 0);
        _exit(0);
    }
    const int status = support::wait_child(pid);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGPIPE);
    EXPECT_EQ(log(), (messages{send_failed(EPIPE)}));
}

TEST_F(AdminChannelTest, a_request_has_room_for_eight_items)
{
    admin_request request = {};
    for (uint32_t i = 0; i < 8; i++) {
        admin_append(&request, TTYLIB_TLV_TTYNO, i);
        EXPECT_EQ(request.used, 8 * (i + 1));
    }
    const admin_request full = request;
    admin_append(&request, TTYLIB_TLV_RELEASE, 9);
    EXPECT_EQ(memcmp(&request, &full, sizeof full), 0);
}

TEST_F(AdminChannelTest, an_item_is_type_length_and_value)
{
    admin_request request = {};
    admin_append(&request, TTYLIB_TLV_HOLD_TIME, 0x01020304);
    const unsigned char expected[] = {0x00, 0x08, 4, 0, 4, 3, 2, 1, 0};
    EXPECT_EQ(memcmp(request.bytes, expected, sizeof expected), 0);
    EXPECT_EQ(request.used, 8u);
}

TEST_F(AdminChannelTest, types_have_their_numbers)
{
    EXPECT_EQ(TTYLIB_TLV_LOGSUCC, 1);
    EXPECT_EQ(TTYLIB_TLV_TTYNO, 32);
    EXPECT_EQ(TTYLIB_TLV_SPEED, 64);
    EXPECT_EQ(TTYLIB_TLV_SESSION_TIMEOUT, 128);
    EXPECT_EQ(TTYLIB_TLV_EXEC_TIMEOUT, 256);
    EXPECT_EQ(TTYLIB_TLV_HOLD_TIME, 2048);
    EXPECT_EQ(TTYLIB_TLV_RELEASE, 4096);
}

TEST_F(AdminChannelTest, a_partial_send_is_completed)
{
    fault_row("admin_send", "write", "short", "0", "",
              "the whole request sent");
    start();
    fault::shorten("write", 1, 3);
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), 0);
    ASSERT_TRUE(take());
    EXPECT_EQ(received(), "00 10 04 00 00 00 00 00");
}

TEST_F(AdminChannelTest, an_interrupted_send_is_tried_again)
{
    fault_row("admin_send", "write", "EINTR", "0", "",
              "the whole request sent");
    start();
    fault::fail("write", 1, EINTR, 3);
    EXPECT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), 0);
    ASSERT_TRUE(take());
    EXPECT_EQ(received(), "00 10 04 00 00 00 00 00");
}

TEST_F(AdminChannelTest, a_daemon_that_stops_reading_blocks_the_sender)
{
    start();
    ASSERT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), 0);
    ASSERT_TRUE(take());
    std::atomic<int> sent{0};
    std::thread sender([&] {
        for (int i = 0; i < 4000; i++) {
            send_item(TTYLIB_TLV_RELEASE, 0);
            sent++;
        }
    });
    // It stands once the buffers are full, and goes on when they are emptied.
    int last = -1;
    EXPECT_TRUE(support::wait_until([&] {
        const int before = last;
        last = sent;
        usleep(100000);
        return last > 0 && last == before && last < 4000;
    }));
    char scrap[4096];
    size_t got = 0;
    while (got < size_t{8} * 4001) {
        const ssize_t more = recv(connection_, scrap, sizeof scrap, 0);
        ASSERT_GT(more, 0);
        got += static_cast<size_t>(more);
    }
    sender.join();
    EXPECT_EQ(sent, 4000);
}

TEST_F(AdminChannelTest, a_forked_child_shares_the_stream)
{
    start();
    ASSERT_EQ(send_item(TTYLIB_TLV_RELEASE, 0), 0);
    ASSERT_TRUE(take());
    EXPECT_EQ(support::in_child([] {
                  return send_item(TTYLIB_TLV_RELEASE, 7) == 0;
              }),
              0);
    EXPECT_EQ(received(), "00 10 04 00 00 00 00 00 00 10 04 00 07 00 00 00");
    EXPECT_FALSE(someone_waits());
}
