// Other threads of a daemon change its services while the loop runs sessions.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <thread>
#include <vector>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"

constexpr int CHANGES = 200;

// Forty sessions, one after the other, while the daemon's threads are at work;
// all of them carry data and are reported clean.
static void expect_sessions(const AnsweringInetd &inetd, int port,
                            const std::function<bool()> &threads_done)
{
    for (int i = 0; i < 40; i++) {
        int client = -1;
        EXPECT_TRUE(eventually([&] {
            return (client = connect_port(AF_INET, port)) >= 0;
        }));
        EXPECT_TRUE(write_all(client, "hello\n"));
        EXPECT_EQ(read_until(client, "\n"), "> hello\r\n");
        close(client);
    }
    EXPECT_TRUE(threads_done());
    EXPECT_TRUE(eventually([&] {
        return inetd.cleans() == 40;
    }));
}

TEST_F(SystemTest, services_come_and_go_while_sessions_run)
{
    AnsweringInetd inetd;
    const int port = free_port(AF_INET);
    Daemon daemon([&] {
        must_register(relaying(AF_INET, port, nullptr, 6));
        for (int t = 0; t < 3; t++) {
            std::thread([t, this] {
                const std::string name = path("/s" + std::to_string(t));
                const vc_reg reg = relaying(AF_UNIX, 0, name.c_str(), 7);
                for (int i = 0; i < CHANGES; i++) {
                    // Still there when another thread's deletion, which takes
                    // the first path whoever added it, has met none of ours.
                    static_cast<void>(vc_service_reg(&reg));
                    kill(getpid(), SIGHUP);
                    usleep(500);
                    vc_service_del(0);
                }
                vc_debug_msg("test: thread done\n");
            }).detach();
        }
    });
    inetd.start();
    expect_sessions(inetd, port, [&] {
        return logged("test: thread done\n", 3);
    });
    EXPECT_TRUE(daemon.has_no_children());
}

TEST_F(SystemTest, listeners_stop_and_open_while_sessions_run)
{
    AnsweringInetd inetd;
    const int port = free_port(AF_INET);
    // A path: a permit that comes twice is no failure there.
    const std::string other = path("/s");
    Daemon daemon([&] {
        must_register(relaying(AF_INET, port, nullptr, 6));
        must_register(relaying(AF_UNIX, 0, other.c_str(), 7));
        std::thread([] {
            while (__atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) < 0) {
                usleep(1000);
            }
            for (int i = 0; i < CHANGES; i++) {
                vc_deal_service_listen(false, 7);
                vc_tos_set(6, AF_INET, i % 64);
                vc_deal_service_listen(true, 7);
                usleep(1000);
            }
            vc_debug_msg("test: thread done\n");
        }).detach();
    });
    inetd.start();
    expect_sessions(inetd, port, [&] {
        return logged("test: thread done\n");
    });
}
