// Listener control from the daemon's other threads against a busy loop.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"

using Clock = std::chrono::steady_clock;

constexpr int HAMMER_SECONDS = 6;
constexpr int CLIENTS = 8;
constexpr PortRange OWN_PORTS = {2000, 4000};
constexpr int WAKE_UPS = 5000;

static void await_loop()
{
    while (__atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) < 0) {
        usleep(1000);
    }
}

static void make_file(const std::string &name)
{
    close(open(name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
}

static bool file_exists(const std::string &name)
{
    return access(name.c_str(), F_OK) == 0;
}

// Repeats work on a thread of the daemon until the time is over, then says so
// by a file: the log is emptied whenever it is full.
template <typename work>
static void hammer(const std::string &done, work step)
{
    std::thread([done, step] {
        const auto end = Clock::now() + std::chrono::seconds(HAMMER_SECONDS);
        await_loop();
        while (Clock::now() < end) {
            step();
        }
        make_file(done);
    }).detach();
}

// Looks without connecting: a session that is forked meanwhile would inherit
// this process's end of the connection and never see it closed.
static bool listens(int port)
{
    std::ifstream table("/proc/self/net/tcp");
    char entry[32];

    (void)snprintf(entry, sizeof entry, ":%04X 00000000:0000 0A ", port);
    const std::string all{std::istreambuf_iterator<char>(table), {}};
    return all.find(entry) != std::string::npos;
}

// One line there and back. While the answer is awaited, further lines are
// sent: a time-out of the loop that finds an old EINTR in errno puts off what
// is pending until the next event, so there has to be one.
static bool echoes(int client)
{
    const auto end = Clock::now() + std::chrono::milliseconds(DEADLINE_MS);
    std::string text;
    char buf[4096];

    if (!write_all(client, "hello\n")) {
        return false;
    }
    while (text.find("> hello\r\n") == std::string::npos) {
        struct pollfd one = {client, POLLIN, 0};
        if (Clock::now() > end) {
            return false;
        }
        if (poll(&one, 1, 500) <= 0) {
            write_all(client, "nudge\n");
            continue;
        }
        const ssize_t got = read(client, buf, sizeof buf);
        if (got <= 0) {
            return false;
        }
        text.append(buf, static_cast<size_t>(got));
    }
    return true;
}

// The fewest that were open in a while: log files come and go.
static size_t settled_descriptors(const Daemon &daemon)
{
    size_t fewest = daemon.descriptors().size();

    for (int i = 0; i < 100; i++) {
        usleep(2000);
        fewest = std::min(fewest, daemon.descriptors().size());
    }
    return fewest;
}

class ControlTest : public SystemTest
{
  protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        port_ = free_port(AF_INET, OWN_PORTS);
        moving_ports_[0] = free_port(AF_INET, OWN_PORTS);
        moving_ports_[1] = free_port(AF_INET, OWN_PORTS);
        paths_ = {path("/seven"), path("/nine"), path("/ten")};
    }

    void register_all() const
    {
        must_register(relaying(AF_INET, port_, nullptr, 6));
        must_register(relaying(AF_INET, moving_ports_[0], nullptr, 1));
        must_register(relaying(AF_UNIX, 0, paths_[0].c_str(), 7));
        must_register(relaying(AF_UNIX, 0, paths_[1].c_str(), 9));
        must_register(relaying(AF_UNIX, 0, paths_[2].c_str(), 10));
    }

    // Four threads, each with the operations of services of its own: what one
    // closes, nobody else opens.
    void start_hammering() const
    {
        const int here = moving_ports_[0];
        const int there = moving_ports_[1];
        hammer(path("/done0"), [] {
            vc_deal_service_listen(false, 7);
            vc_tos_set(7, AF_INET, 8);
            vc_deal_service_listen(true, 7);
        });
        hammer(path("/done1"), [] {
            tty_cmsg stop = {};
            stop.pid = getpid();
            stop.protocol = 9;
            vc_msg_stop_listen(&stop);
            vc_deal_service_listen(true, 9);
            stop.pid = 1;
            vc_msg_stop_listen(&stop);
        });
        hammer(path("/done2"), [here, there] {
            // The next move waits for the new listener: two in flight would
            // be answered by two permits for one port.
            vc_service_update_port(1, here, there);
            while (!listens(there)) {
                usleep(1000);
            }
            vc_service_update_port(1, there, here);
            while (!listens(here)) {
                usleep(1000);
            }
        });
        hammer(path("/done3"), [this] {
            static int tos;
            vc_tos_set(6, AF_INET, tos++ % 64);
            vc_deal_service_listen(false, 10);
            vc_deal_service_listen(true, 10);
            const vc_reg again = relaying(AF_INET, port_, nullptr, 6);
            static_cast<void>(vc_service_reg(&again));
            vc_service_update_port(6, port_, port_);
        });
    }

    // A wake-up that comes just before the loop begins to wait is lost, and
    // the loop sees what it was for at its next turn. Here somebody types, as
    // on a device in use, so that there is one.
    template <typename question>
    static bool sooner_or_later(int client, question holds)
    {
        return eventually([&] {
            write_all(client, "nudge\n");
            return holds();
        });
    }

    bool all_listen(int client) const
    {
        return sooner_or_later(client, [&] {
            for (const std::string &name : paths_) {
                if (!path_listens(name)) {
                    return false;
                }
            }
            return listens(port_) && listens(moving_ports_[0]);
        });
    }

    static void open_paths(bool open)
    {
        for (const int protocol : {7, 9, 10}) {
            vc_deal_service_listen(open, protocol);
        }
    }

    // A permit that came after the stop has opened a path all the same, and a
    // second one has taken its name away.
    static void open_again()
    {
        open_paths(false);
        open_paths(true);
    }

    int port_ = 0;
    int moving_ports_[2] = {};
    std::vector<std::string> paths_;
};

TEST_F(ControlTest, four_threads_change_listeners_while_sessions_run)
{
    AnsweringInetd inetd;
    Daemon daemon([&] {
        register_all();
        std::thread([this] {
            // The test lets go when it has counted.
            await_loop();
            while (!file_exists(path("/go"))) {
                usleep(1000);
            }
            start_hammering();
            while (!file_exists(path("/stop"))) {
                usleep(1000);
            }
            open_paths(false);
            make_file(path("/stopped"));
            while (!file_exists(path("/open"))) {
                usleep(1000);
            }
            open_again();
            make_file(path("/opened"));
        }).detach();
    });
    inetd.start();
    std::vector<int> clients;
    ASSERT_TRUE(eventually([&] {
        return listens(port_);
    }));
    for (int i = 0; i < CLIENTS; i++) {
        clients.push_back(connect_port(AF_INET, port_));
        ASSERT_TRUE(echoes(clients.back())) << i;
    }
    // The connections that are only made to look go again.
    ASSERT_TRUE(all_listen(clients[0]));
    const auto only_clients_left = [&] {
        return sooner_or_later(clients[0], [&] {
            return daemon.children().size() == CLIENTS;
        });
    };
    ASSERT_TRUE(only_clients_left());
    const size_t before = settled_descriptors(daemon);
    make_file(path("/go"));

    const auto end = Clock::now() + std::chrono::seconds(HAMMER_SECONDS);
    int echoed = 0;
    while (Clock::now() < end) {
        for (const int client : clients) {
            ASSERT_TRUE(echoes(client));
            echoed++;
        }
    }
    EXPECT_GT(echoed, CLIENTS);
    ASSERT_TRUE(eventually([&] {
        return file_exists(path("/done0")) && file_exists(path("/done1")) &&
               file_exists(path("/done2")) && file_exists(path("/done3"));
    }));
    // A permit too many leaves a path without its socket's name, so the last
    // opening begins with none on its way.
    make_file(path("/stop"));
    ASSERT_TRUE(sooner_or_later(clients[0], [&] {
        return file_exists(path("/stopped")) && inetd.everything_answered();
    }));
    EXPECT_TRUE(echoes(clients[0]));
    make_file(path("/open"));
    ASSERT_TRUE(eventually([&] {
        return file_exists(path("/opened"));
    }));
    EXPECT_TRUE(all_listen(clients[0])) << "a service was lost";
    for (const int client : clients) {
        EXPECT_TRUE(echoes(client));
    }
    EXPECT_EQ(inetd.connections(), 1);
    EXPECT_TRUE(only_clients_left());
    EXPECT_TRUE(daemon.settles_at(before)) << "a listener was leaked";
    for (const int client : clients) {
        close(client);
    }
    EXPECT_TRUE(daemon.has_no_children());
}

TEST_F(ControlTest, five_thousand_wake_ups_do_not_end_the_daemon)
{
    AnsweringInetd inetd;
    const std::string done = path("/done");
    Daemon daemon([&] {
        must_register(relaying(AF_UNIX, 0, paths_[0].c_str(), 7));
        std::thread([done, this] {
            await_loop();
            for (int i = 0; i < WAKE_UPS; i++) {
                vc_deal_service_listen(false, 7);
                vc_deal_service_listen(true, 7);
            }
            make_file(done);
            open_paths(false);
            make_file(path("/stopped"));
            while (!file_exists(path("/open"))) {
                usleep(1000);
            }
            open_again();
            make_file(path("/opened"));
        }).detach();
    });
    inetd.start();
    ASSERT_TRUE(eventually([&] {
        return file_exists(done) || !daemon.alive();
    }));
    // Once more, as the last wake-up may have been lost and the last permit
    // may have come twice.
    ASSERT_TRUE(eventually([&] {
        kill(daemon.pid(), SIGHUP);
        return file_exists(path("/stopped")) && inetd.everything_answered();
    }));
    make_file(path("/open"));
    ASSERT_TRUE(eventually([&] {
        return file_exists(path("/opened"));
    }));
    int client = -1;
    EXPECT_TRUE(eventually([&] {
        kill(daemon.pid(), SIGHUP);
        return (client = connect_path(paths_[0])) >= 0;
    }));
    EXPECT_TRUE(echoes(client));
    close(client);
    EXPECT_EQ(inetd.connections(), 1);
}
