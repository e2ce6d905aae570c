#include <errno.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/service.h"
#include "vc/session.h"

static volatile sig_atomic_t g_hangups;

static void count_hangup(int)
{
    g_hangups = g_hangups + 1;
}

class ListenControlTest : public VcTest
{
  protected:
    void SetUp() override
    {
        VcTest::SetUp();
        g_hangups = 0;
    }

    static void watch_hangups()
    {
        signal(SIGHUP, count_hangup);
        g_vc_tid.store(pthread_self());
    }

    // Another thread has to ask: the one that holds the lock would only be
    // told so, and the library does not look at that.
    static bool lock_is_free()
    {
        static std::atomic<bool> taken;
        taken = false;
        std::thread([] {
            vc_wlock();
            vc_unlock();
            taken = true;
        }).detach();
        return support::wait_until([] {
            return taken.load();
        });
    }

    static tty_cmsg stop_record(int protocol)
    {
        tty_cmsg msg = {};
        msg.vc_flag = VC_FLAG_STOP_LISTEN;
        msg.pid = getpid();
        msg.protocol = protocol;
        return msg;
    }

    static tty_cmsg deletion(int protocol, int port, const char *path)
    {
        tty_cmsg msg = {};
        msg.pid = getpid();
        msg.protocol = protocol;
        msg.port = port;
        strcpy(msg.path, path);
        return msg;
    }

    static void session(int ttyno, const vc_reg &reg)
    {
        auto *child = static_cast<vc_child *>(calloc(1, sizeof(vc_child)));
        child->ttyno = ttyno;
        child->sockfd = -1;
        child->master_fd = -1;
        child->inetd_fd = -1;
        child->reg = reg;
        vc_child_install(ttyno, child);
    }
};

TEST_F(ListenControlTest, before_any_registration_nothing_is_done)
{
    tty_cmsg msg = deletion(6, 23, "");
    EXPECT_EQ(vc_deal_service_listen(true, 6), 0);
    EXPECT_EQ(vc_deal_service_listen(false, 6), 0);
    EXPECT_EQ(vc_msg_stop_listen(&msg), 0);
    vc_msg_del_listen(&msg);
    EXPECT_EQ(vc_tos_set(6, AF_INET, 4), -1);
    EXPECT_EQ(vc_service_update_port(6, 23, 24), -1);
    EXPECT_TRUE(
        logged("vc: param error, proto(6),old_port(23),new_port(24),fd(-1)\n"));
}

TEST_F(ListenControlTest, opening_a_closed_service_lets_it_be_announced)
{
    add(plain(AF_INET, 23, nullptr, 11));
    watch_hangups();
    service(0)->flags = SRV_CLOSED | SRV_STOPPED | SRV_ANNOUNCED;
    EXPECT_EQ(vc_deal_service_listen(true, 11), 0);
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(g_hangups, 1);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{
                  "vc:vc_deal_service_listen open listen proto 11 port 23 "
                  "addr type 2, flags 0x0\r\n"}));
}

TEST_F(ListenControlTest, an_open_service_keeps_its_announcement)
{
    add(plain(AF_INET, 23, nullptr, 6));
    service(0)->flags = SRV_ANNOUNCED;
    EXPECT_EQ(vc_deal_service_listen(true, 6), 0);
    EXPECT_EQ(service(0)->flags, SRV_ANNOUNCED);
}

TEST_F(ListenControlTest, opening_what_listens_already_does_nothing)
{
    add(plain(AF_INET, 23, nullptr, 6));
    const Listener listener;
    service(0)->listen_fd = listener.fd;
    watch_hangups();
    EXPECT_EQ(vc_deal_service_listen(true, 6), 0);
    EXPECT_EQ(g_hangups, 0);
    EXPECT_TRUE(messages().empty());
    EXPECT_FALSE(listener.closed());
    close(listener.fd);
}

TEST_F(ListenControlTest, a_listener_on_descriptor_0_is_one)
{
    add(plain(AF_INET, 23, nullptr, 6));
    service(0)->listen_fd = 0;
    EXPECT_EQ(vc_deal_service_listen(true, 6), 0);
    EXPECT_TRUE(messages().empty());
    service(0)->listen_fd = -1;
}

TEST_F(ListenControlTest, every_service_is_opened_and_the_loop_woken_once)
{
    add(plain(AF_INET, 23, nullptr, 11));
    add(plain(AF_INET6, 23, nullptr, 11));
    add(plain(AF_INET, 24, nullptr, 11));
    const Listener listener;
    service(2)->listen_fd = listener.fd;
    watch_hangups();
    EXPECT_EQ(vc_deal_service_listen(true, 11), 0);
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(service(1)->flags, 0u);
    EXPECT_EQ(g_hangups, 1);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{
                  "vc:vc_deal_service_listen open listen proto 11 port 23 "
                  "addr type 2, flags 0x0\r\n",
                  "vc:vc_deal_service_listen open listen proto 11 port 23 "
                  "addr type 10, flags 0x0\r\n"}));
    EXPECT_TRUE(lock_is_free());
    close(listener.fd);
}

TEST_F(ListenControlTest, without_a_loop_nobody_is_woken)
{
    add(plain(AF_INET, 23, nullptr, 11));
    signal(SIGHUP, count_hangup);
    EXPECT_EQ(vc_deal_service_listen(true, 11), 0);
    EXPECT_EQ(g_hangups, 0);
}

TEST_F(ListenControlTest, other_protocols_are_left_alone)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 1));
    EXPECT_EQ(vc_deal_service_listen(false, 1), 0);
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(service(1)->flags, SRV_CLOSED | SRV_STOPPED);
}

TEST_F(ListenControlTest, stopping_shuts_down_and_closes)
{
    add(plain(AF_INET, 23, nullptr, 6));
    const Listener listener;
    service(0)->listen_fd = listener.fd;
    service(0)->flags = SRV_ANNOUNCED;
    watch_hangups();
    EXPECT_EQ(vc_deal_service_listen(false, 6), 0);
    EXPECT_TRUE(listener.shut_down());
    EXPECT_TRUE(listener.closed());
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_EQ(service(0)->flags, SRV_CLOSED | SRV_STOPPED);
    EXPECT_EQ(g_hangups, 0);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{
                  "vc:vc_deal_service_listen stop listen proto 6 port 23 "
                  "addr type 2, flags 0x6\r\n"}));
}

TEST_F(ListenControlTest, stopping_twice_logs_once)
{
    add(plain(AF_INET, 23, nullptr, 6));
    vc_deal_service_listen(false, 6);
    vc_deal_service_listen(false, 6);
    EXPECT_EQ(messages().size(), 1u);
}

TEST_F(ListenControlTest, what_the_inetd_closed_is_not_stopped)
{
    add(plain(AF_INET, 23, nullptr, 6));
    service(0)->flags = SRV_CLOSED;
    vc_deal_service_listen(false, 6);
    EXPECT_EQ(service(0)->flags, SRV_CLOSED);
}

TEST_F(ListenControlTest, a_stop_record_closes_its_protocol_everywhere)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET6, 24, nullptr, 6));
    add(plain(AF_INET, 25, nullptr, 1));
    const Listener listener;
    service(0)->listen_fd = listener.fd;
    for (int i = 0; i < 3; i++) {
        service(i)->flags = SRV_ANNOUNCED;
    }
    watch_hangups();
    tty_cmsg msg = stop_record(6);
    // Only the protocol counts.
    msg.port = 24;
    strcpy(msg.path, "/run/x");
    EXPECT_EQ(vc_msg_stop_listen(&msg), 0);
    EXPECT_TRUE(listener.shut_down());
    EXPECT_TRUE(listener.closed());
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_EQ(service(0)->flags, SRV_CLOSED);
    EXPECT_EQ(service(1)->flags, SRV_CLOSED);
    EXPECT_EQ(service(2)->flags, SRV_ANNOUNCED);
    EXPECT_EQ(g_hangups, 0);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{
                  "vc:vc_msg_stop_listen stop listen proto 6 port 23 "
                  "addr type 2, flags 0x2\r\n",
                  "vc:vc_msg_stop_listen stop listen proto 6 port 24 "
                  "addr type 10, flags 0x2\r\n"}));
    EXPECT_TRUE(lock_is_free());
}

TEST_F(ListenControlTest, a_stop_record_keeps_what_the_daemon_stopped)
{
    add(plain(AF_INET, 23, nullptr, 6));
    vc_deal_service_listen(false, 6);
    messages();
    const tty_cmsg msg = stop_record(6);
    EXPECT_EQ(vc_msg_stop_listen(&msg), 0);
    EXPECT_EQ(service(0)->flags, SRV_CLOSED | SRV_STOPPED);
    EXPECT_EQ(messages().size(), 1u);
}

TEST_F(ListenControlTest, a_stop_record_of_another_process_does_nothing)
{
    add(plain(AF_INET, 23, nullptr, 6));
    const Listener listener;
    service(0)->listen_fd = listener.fd;
    service(0)->flags = SRV_ANNOUNCED;
    tty_cmsg msg = stop_record(6);
    msg.pid = 1;
    EXPECT_EQ(vc_msg_stop_listen(&msg), getpid());
    EXPECT_EQ(service(0)->flags, SRV_ANNOUNCED);
    EXPECT_FALSE(listener.closed());
    EXPECT_TRUE(messages().empty());
    close(listener.fd);
}

TEST_F(ListenControlTest, deletion_closes_without_shutdown_and_says_nothing)
{
    add(plain(AF_INET, 23, nullptr, 6));
    const Listener listener;
    service(0)->listen_fd = listener.fd;
    service(0)->flags = SRV_ANNOUNCED;
    const tty_cmsg msg = deletion(6, 23, "");
    vc_msg_del_listen(&msg);
    EXPECT_TRUE(listener.closed());
    EXPECT_FALSE(listener.shut_down());
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_TRUE(messages().empty());
}

TEST_F(ListenControlTest, deletion_matches_port_or_path_of_the_protocol)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 6));
    add(plain(AF_INET6, 23, nullptr, 1));
    add(plain(AF_UNIX, 0, "/run/x", 7));
    add(plain(AF_UNIX, 0, "/run/y", 7));
    for (int i = 0; i < 5; i++) {
        service(i)->flags = SRV_ANNOUNCED;
    }
    tty_cmsg msg = deletion(6, 23, "/run/x");
    vc_msg_del_listen(&msg);
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(service(1)->flags, SRV_ANNOUNCED);
    EXPECT_EQ(service(2)->flags, SRV_ANNOUNCED);
    EXPECT_EQ(service(3)->flags, SRV_ANNOUNCED);
    msg = deletion(7, 5, "/run/x");
    vc_msg_del_listen(&msg);
    EXPECT_EQ(service(3)->flags, 0u);
    EXPECT_EQ(service(4)->flags, SRV_ANNOUNCED);
    // Port 0 means every path of the protocol.
    msg = deletion(7, 0, "/elsewhere");
    vc_msg_del_listen(&msg);
    EXPECT_EQ(service(4)->flags, 0u);
}

TEST_F(ListenControlTest, deletion_keeps_the_closed_flag)
{
    add(plain(AF_INET, 23, nullptr, 6));
    service(0)->flags = SRV_ANNOUNCED | SRV_CLOSED;
    const tty_cmsg msg = deletion(6, 23, "");
    vc_msg_del_listen(&msg);
    EXPECT_EQ(service(0)->flags, SRV_CLOSED);
}

TEST_F(ListenControlTest, deletion_ends_sessions_by_port_or_path)
{
    add(plain(AF_INET, 23, nullptr, 6));
    session(300, plain(AF_INET, 23, nullptr, 1));
    session(301, plain(AF_INET, 24, nullptr, 6));
    session(302, plain(AF_UNIX, 0, "/run/x", 7));
    session(303, plain(AF_UNIX, 0, "/run/y", 7));
    tty_cmsg msg = deletion(6, 23, "/run/x");
    vc_msg_del_listen(&msg);
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_NE(vc_child_at(301), nullptr);
    EXPECT_EQ(vc_child_at(302), nullptr);
    EXPECT_NE(vc_child_at(303), nullptr);
    // Sessions are not matched by port 0.
    msg = deletion(7, 0, "");
    vc_msg_del_listen(&msg);
    EXPECT_NE(vc_child_at(303), nullptr);
    vc_child_release(vc_child_at(301));
    vc_child_release(vc_child_at(303));
}

TEST_F(ListenControlTest, deletion_ends_a_session_by_path_beside_its_port)
{
    add(plain(AF_INET, 23, nullptr, 6));
    session(300, plain(AF_INET, 24, "/run/x", 0));
    const tty_cmsg msg = deletion(6, 23, "/run/x");
    vc_msg_del_listen(&msg);
    EXPECT_EQ(vc_child_at(300), nullptr);
}

TEST_F(ListenControlTest, deletion_looks_at_the_first_and_the_last_line)
{
    add(plain(AF_INET, 23, nullptr, 6));
    session(0, plain(AF_INET, 23, nullptr, 6));
    session(1585, plain(AF_INET, 23, nullptr, 6));
    const tty_cmsg msg = deletion(6, 23, "");
    vc_msg_del_listen(&msg);
    EXPECT_EQ(vc_child_at(0), nullptr);
    EXPECT_EQ(vc_child_at(1585), nullptr);
}

// What ends a session may wait long for the inetd; nobody else has to wait
// for it.
TEST_F(ListenControlTest, deletion_ends_sessions_without_the_lock)
{
    static bool free_inside;
    vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    add(reg);
    free_inside = false;
    reg.kill_func = [](int) {
        free_inside = lock_is_free();
        return 0;
    };
    session(300, reg);
    const tty_cmsg msg = deletion(6, 23, "");
    vc_msg_del_listen(&msg);
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_TRUE(free_inside);
}

TEST_F(ListenControlTest, deletion_for_another_process_does_nothing)
{
    add(plain(AF_INET, 23, nullptr, 6));
    service(0)->flags = SRV_ANNOUNCED;
    session(300, plain(AF_INET, 23, nullptr, 6));
    tty_cmsg msg = deletion(6, 23, "");
    msg.pid = 1;
    vc_msg_del_listen(&msg);
    EXPECT_EQ(service(0)->flags, SRV_ANNOUNCED);
    EXPECT_NE(vc_child_at(300), nullptr);
    vc_child_release(vc_child_at(300));
}

TEST_F(ListenControlTest, a_port_update_checks_its_parameters)
{
    add(plain(AF_INET, 23, nullptr, 6));
    EXPECT_EQ(vc_service_update_port(12, 23, 24), -1);
    EXPECT_EQ(vc_service_update_port(5, -1, 23), -1);
    EXPECT_EQ(vc_service_update_port(5, 23, -1), -1);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{
                  "vc: param error, proto(12),old_port(23),new_port(24),"
                  "fd(-1)\n",
                  "vc: param error, proto(5),old_port(-1),new_port(23),"
                  "fd(-1)\n",
                  "vc: param error, proto(5),old_port(23),new_port(-1),"
                  "fd(-1)\n"}));
    EXPECT_EQ(vc_service_update_port(-3, 23, 24), 0);
    EXPECT_EQ(service(0)->reg.listen_port, 23);
}

TEST_F(ListenControlTest, a_port_update_to_the_same_port_is_nothing)
{
    add(plain(AF_INET, 23, nullptr, 5));
    EXPECT_EQ(vc_service_update_port(5, 23, 23), 0);
    EXPECT_TRUE(logged("vc: port same, proto(5),old_port(23),new_port(23)\n"));
    EXPECT_EQ(vc_service_update_port(5, 0, 0), 0);
    EXPECT_TRUE(logged("vc: port same, proto(5),old_port(0),new_port(0)\n"));
}

TEST_F(ListenControlTest, port_0_is_a_port_like_others)
{
    add(plain(AF_INET, 23, nullptr, 5));
    EXPECT_EQ(vc_service_update_port(5, 23, 0), 0);
    EXPECT_EQ(service(0)->reg.listen_port, 0);
    EXPECT_EQ(vc_service_update_port(5, 0, 24), 0);
    EXPECT_EQ(service(0)->reg.listen_port, 24);
}

TEST_F(ListenControlTest, a_port_update_tells_the_inetd_and_moves_the_service)
{
    add(plain(AF_INET6, 23, nullptr, 5));
    const Listener listener;
    service(0)->listen_fd = listener.fd;
    service(0)->flags = SRV_ANNOUNCED;
    vc_tty_socket_set(inetd_fd_);
    EXPECT_EQ(vc_service_update_port(5, 23, 24), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    tty_cmsg expected = {};
    expected.vc_flag = 0x400;
    expected.pid = getpid();
    expected.port = 23;
    expected.peer_port = 24;
    expected.socktype = 10;
    expected.protocol = 5;
    EXPECT_EQ(memcmp(&records[0], &expected, sizeof expected), 0);
    EXPECT_TRUE(listener.shut_down());
    EXPECT_TRUE(listener.closed());
    EXPECT_EQ(service(0)->reg.listen_port, 24);
    EXPECT_EQ(service(0)->flags, SRV_ANNOUNCED);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{
                  "vc:vc_service_update_port stop listen proto 5 port 24 "
                  "addr type 10, fd -1\r\n"}));
}

TEST_F(ListenControlTest, without_an_inetd_the_port_moves_locally)
{
    add(plain(AF_INET, 23, nullptr, 5));
    EXPECT_EQ(vc_service_update_port(5, 23, 24), 0);
    EXPECT_EQ(service(0)->reg.listen_port, 24);
    EXPECT_TRUE(sent().empty());
}

TEST_F(ListenControlTest, an_inetd_on_descriptor_0_is_told)
{
    add(plain(AF_INET, 23, nullptr, 5));
    const int written =
        fault::result("write", 1, sizeof(tty_cmsg), 1, fault::only_fd(0));
    vc_tty_socket_set(0);
    EXPECT_EQ(vc_service_update_port(5, 23, 24), 0);
    vc_tty_socket_set(-1);
    EXPECT_EQ(fault::seen(written), 1);
}

TEST_F(ListenControlTest, a_port_update_that_cannot_be_told_stops_there)
{
    fault_row("vc_service_update_port", "write", "EPIPE", "-1",
              "vc:%s write vc_fd %d fail, err:%s.\n",
              "services before it moved, it and the later ones as they were");
    add(plain(AF_INET, 23, nullptr, 0));
    add(plain(AF_INET6, 23, nullptr, 0));
    add(plain(30, 23, nullptr, 0));
    const Listener listener;
    service(1)->listen_fd = listener.fd;
    vc_tty_socket_set(inetd_fd_);
    fault::fail("write", 2, EPIPE, 1, fault::only_fd(inetd_fd_));
    EXPECT_EQ(vc_service_update_port(0, 23, 24), -1);
    fault::reset();
    EXPECT_EQ(service(0)->reg.listen_port, 24);
    EXPECT_EQ(service(1)->reg.listen_port, 23);
    EXPECT_EQ(service(2)->reg.listen_port, 23);
    EXPECT_FALSE(listener.closed());
    EXPECT_EQ(messages().back(), "vc:vc_service_update_port write vc_fd " +
                                     std::to_string(inetd_fd_) +
                                     " fail, err:" + strerror(EPIPE) + ".\n");
    EXPECT_TRUE(lock_is_free());
    EXPECT_EQ(vc_service_update_port(0, 23, 24), 0);
    EXPECT_EQ(service(2)->reg.listen_port, 24);
    EXPECT_TRUE(lock_is_free());
}

TEST_F(ListenControlTest, tos_is_set_on_the_listener_of_the_family)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET6, 23, nullptr, 6));
    service(0)->listen_fd = socket(AF_INET, SOCK_STREAM, 0);
    service(1)->listen_fd = socket(AF_INET6, SOCK_STREAM, 0);
    EXPECT_EQ(vc_tos_set(6, AF_INET, 0x10), 0);
    EXPECT_EQ(vc_tos_set(6, AF_INET6, 0x20), 0);
    EXPECT_EQ(int_option(service(0)->listen_fd, IPPROTO_IP, IP_TOS), 0x10);
    EXPECT_EQ(int_option(service(1)->listen_fd, IPPROTO_IPV6, IPV6_TCLASS),
              0x20);
    EXPECT_EQ(vc_tos_set(6, AF_INET, -7), 0);
    EXPECT_EQ(int_option(service(0)->listen_fd, IPPROTO_IP, IP_TOS), 0);
    close(service(0)->listen_fd);
    close(service(1)->listen_fd);
}

TEST_F(ListenControlTest, tos_is_for_the_first_service_even_without_listener)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 6));
    service(1)->listen_fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(vc_tos_set(6, AF_INET, 0x10), -1);
    EXPECT_EQ(int_option(service(1)->listen_fd, IPPROTO_IP, IP_TOS), 0);
    EXPECT_TRUE(lock_is_free());
    close(service(1)->listen_fd);
}

TEST_F(ListenControlTest, tos_without_service_family_or_listener_fails)
{
    fault_row("vc_tos_set", "setsockopt", "EBADF", "-1", "", "");
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_UNIX, 0, "/run/x", 7));
    errno = 0;
    EXPECT_EQ(vc_tos_set(1, AF_INET, 4), -1);
    EXPECT_EQ(vc_tos_set(6, AF_INET6, 4), -1);
    EXPECT_EQ(vc_tos_set(7, AF_UNIX, 4), -1);
    // No descriptor was touched.
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(lock_is_free());
    errno = 0;
    EXPECT_EQ(vc_tos_set(6, AF_INET, 4), -1);
    EXPECT_EQ(errno, EBADF);
}
