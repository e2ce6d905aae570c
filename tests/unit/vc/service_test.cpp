#include "vc/service.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/fault.h"
#include "tests/unit/vc/vc_fixture.h"

using ServiceTest = VcTest;

TEST_F(ServiceTest, state_before_the_first_registration)
{
    EXPECT_FALSE(g_vc_inited);
    EXPECT_FALSE(g_vc_started);
    EXPECT_EQ(g_vc_tty_socket, -1);
    EXPECT_EQ(g_vc_tid.load(), 0u);
    EXPECT_EQ(g_vc_accept_list.next, &g_vc_accept_list);
    EXPECT_EQ(g_vc_accept_list.prev, &g_vc_accept_list);
}

TEST_F(ServiceTest, bits_of_the_flags)
{
    EXPECT_EQ(SRV_ANNOUNCED, 0x1u);
    EXPECT_EQ(SRV_CLOSED, 0x2u);
    EXPECT_EQ(SRV_STOPPED, 0x4u);
}

TEST_F(ServiceTest, readers_share_the_lock_and_writers_do_not)
{
    vc_lock_init();
    vc_rlock();
    std::thread reader([] {
        vc_rlock();
        vc_unlock();
    });
    reader.join();
    std::atomic<bool> written{false};
    std::thread writer([&] {
        vc_wlock();
        written = true;
        vc_unlock();
    });
    EXPECT_FALSE(written);
    EXPECT_EQ(vc_unlock(), 0);
    writer.join();
    EXPECT_TRUE(written);
}

TEST_F(ServiceTest, a_service_is_told_by_its_own_path_only)
{
    vc_srv srv = {};
    EXPECT_FALSE(vc_srv_has_path(&srv, ""));
    srv.reg.listen_path = "/run/a";
    EXPECT_TRUE(vc_srv_has_path(&srv, "/run/a"));
    EXPECT_FALSE(vc_srv_has_path(&srv, "/run/ab"));
    EXPECT_FALSE(vc_srv_has_path(&srv, "/run/"));
}

TEST_F(ServiceTest, a_walk_may_unlink_the_service_it_is_at)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 6));
    add(plain(AF_INET, 25, nullptr, 6));
    std::vector<int> ports;
    vc_srv *srv;
    VC_FOR_EACH_SERVICE(srv)
    {
        const int port = srv->reg.listen_port;
        ports.push_back(port);
        if (port != 25) {
            EXPECT_EQ(vc_service_del(port), 0);
        }
    }
    EXPECT_EQ(ports, (std::vector<int>{23, 24, 25}));
    EXPECT_EQ(service(1), nullptr);
}

TEST_F(ServiceTest, a_listener_is_closed_with_and_without_a_shutdown)
{
    const Listener closed;
    const Listener shut;
    vc_srv srv = {};
    srv.listen_fd = closed.fd;
    vc_srv_close_listener(&srv);
    EXPECT_EQ(srv.listen_fd, -1);
    EXPECT_TRUE(closed.closed());
    EXPECT_FALSE(closed.shut_down());
    srv.listen_fd = shut.fd;
    vc_srv_shut_listener(&srv);
    EXPECT_EQ(srv.listen_fd, -1);
    EXPECT_TRUE(shut.closed());
    EXPECT_TRUE(shut.shut_down());
    // There is none any more.
    const int closes = fault::watch("close");
    vc_srv_close_listener(&srv);
    vc_srv_shut_listener(&srv);
    vc_srv_close_listener_logged(&srv, "somebody");
    EXPECT_EQ(fault::seen(closes), 0);
    EXPECT_TRUE(messages().empty());
}

TEST_F(ServiceTest, a_logged_closing_names_caller_and_descriptor)
{
    const Listener listener;
    const std::string start = "(vc:" + std::to_string(getpid()) +
                              "):somebody close listen fd(" +
                              std::to_string(listener.fd) + ") ";
    vc_srv srv = {};
    srv.listen_fd = listener.fd;
    errno = 0;
    vc_srv_close_listener_logged(&srv, "somebody");
    EXPECT_EQ(srv.listen_fd, -1);
    EXPECT_FALSE(listener.shut_down());
    EXPECT_EQ(messages(), (std::vector<std::string>{start + "success, err " +
                                                    strerror(0) + ".\r\n"}));
}

TEST_F(ServiceTest, the_number_of_the_connection_is_on_show)
{
    vc_tty_socket_set(17);
    EXPECT_EQ(g_vc_tty_socket, 17);
    EXPECT_EQ(vc_tty_socket_get(), 17);
}
