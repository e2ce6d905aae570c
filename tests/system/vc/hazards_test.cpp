// What a daemon's author has to know, seen from outside; docs/hazards.md names
// these tests.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"

class HazardTest : public SystemTest
{
  protected:
    // A session on line 300 of the path service.
    Session session_on(InetdConnection *connection) const
    {
        return log_in(connection, [this] {
            return connect_path(name_);
        });
    }

    void SetUp() override
    {
        SystemTest::SetUp();
        name_ = path("/s");
    }

    std::string name_;
};

constexpr int INHERITED = 200;

static int show_heritage(int, const char *)
{
    std::ifstream status("/proc/self/status");
    std::string line;

    while (std::getline(status, line)) {
        if (line.compare(0, 7, "SigIgn:") == 0) {
            dprintf(1, "%s\n", line.c_str());
        }
    }
    dprintf(1, "descriptor %s\n",
            fcntl(INHERITED, F_GETFD) != -1 ? "open" : "closed");
    for (;;) {
        pause();
    }
}

TEST_F(HazardTest, the_program_inherits_descriptors_and_ignored_signals)
{
    FakeInetd inetd;
    g_session_program = show_heritage;
    Daemon daemon([&] {
        dup2(0, INHERITED);
        must_register(relaying(AF_UNIX, 0, name_.c_str(), 7));
    });
    InetdConnection connection = inetd.accept();
    const Session session = session_on(&connection);
    ASSERT_GE(session.client, 0);
    const std::string text = read_until(session.client, "descriptor open");
    const size_t at = text.find("SigIgn:");
    ASSERT_NE(at, std::string::npos) << text;
    const unsigned long ignored = std::stoul(text.substr(at + 7), nullptr, 16);
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE}) {
        EXPECT_NE(ignored & (1UL << (number - 1)), 0u) << number;
    }
    EXPECT_NE(text.find("descriptor open"), std::string::npos);
    close(session.client);
}

// What an executed program has besides its standard streams: how many
// connections, and how many masters of terminals.
static int execute_a_listing(int, const char *)
{
    execl("/bin/sh", "sh", "-c",
          "ls -l /proc/$$/fd | sed -n 's/.*-> //p' > \"$TMPDIR/listing\"; "
          "echo listed; exec sleep 1000",
          static_cast<char *>(nullptr));
    return 1;
}

static int lines_with(const std::string &file, const std::string &text)
{
    std::ifstream lines(file);
    std::string line;
    int count = 0;

    while (std::getline(lines, line)) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

// Of two other sessions, one connection that waits for its line, and the
// listener it has nothing.
TEST_F(HazardTest, an_executed_program_has_its_own_connection_and_terminal_only)
{
    FakeInetd inetd;
    g_session_program = execute_a_listing;
    Daemon daemon([&] {
        must_register(relaying(AF_UNIX, 0, name_.c_str(), 7));
    });
    InetdConnection connection = inetd.accept();
    const Session first = session_on(&connection);
    ASSERT_GE(first.client, 0);
    ASSERT_NE(read_until(first.client, "listed"), "");
    const int waiting = connect_path(name_);
    ASSERT_TRUE(connection.receive());
    const int second = connect_path(name_);
    const auto report = connection.receive();
    ASSERT_TRUE(report);
    ASSERT_TRUE(connection.assign(*report, 301));
    ASSERT_NE(read_until(second, "listed"), "");
    EXPECT_EQ(lines_with(path("/listing"), "socket:"), 1);
    EXPECT_EQ(lines_with(path("/listing"), "ptmx"), 1);
    close(waiting);
    close(second);
    close(first.client);
}

static int g_master = -1;
static int g_peer = -1;

static int remember_ends(int, int, int sockfd, int master_fd)
{
    g_master = master_fd;
    g_peer = sockfd;
    return 0;
}

static int no_input(int)
{
    return 0;
}

static int one_byte_at_a_time(int)
{
    char byte;

    if (read(g_master, &byte, 1) == 1) {
        static_cast<void>(!write(g_peer, &byte, 1));
    }
    errno = EAGAIN;
    return 0;
}

static int no_last_look(int)
{
    return 0;
}

constexpr int OUTPUT = 3000;

static int print_and_exit(int, const char *)
{
    const std::string text(OUTPUT, 'x');

    static_cast<void>(!write(1, text.data(), text.size()));
    return 0;
}

// The loop ends the session as soon as it hears of the exit. What it has not
// moved by then is the kill callback's to move, and this one does not.
TEST_F(HazardTest, the_last_output_of_a_program_may_be_lost)
{
    FakeInetd inetd;
    g_session_program = print_and_exit;
    Daemon daemon([&] {
        vc_reg reg = relaying(AF_UNIX, 0, name_.c_str(), 7);
        reg.alloc_func = remember_ends;
        reg.read_func = no_input;
        reg.write_func = one_byte_at_a_time;
        reg.kill_func = no_last_look;
        must_register(reg);
    });
    InetdConnection connection = inetd.accept();
    const Session session = session_on(&connection);
    ASSERT_GE(session.client, 0);
    // The program prints and ends while the loop stands still.
    kill(daemon.pid(), SIGSTOP);
    EXPECT_TRUE(eventually([&] {
        return !process_runs(session.pid);
    }));
    kill(daemon.pid(), SIGCONT);
    std::string text;
    char buf[4096];
    for (ssize_t got; (got = read(session.client, buf, sizeof buf)) > 0;) {
        text.append(buf, static_cast<size_t>(got));
    }
    EXPECT_LT(text.size(), size_t{OUTPUT});
    close(session.client);
}

// Records that the inetd does not take fill its socket; then a report waits,
// and with it everybody else.
TEST_F(HazardTest, an_inetd_that_does_not_read_stops_every_session)
{
    FakeInetd inetd;
    Daemon daemon([&] {
        must_register(relaying(AF_UNIX, 0, name_.c_str(), 7));
    });
    InetdConnection connection = inetd.accept();
    const Session session = session_on(&connection);
    ASSERT_GE(session.client, 0);
    ASSERT_TRUE(write_all(session.client, "one\n"));
    ASSERT_EQ(read_until(session.client, "\n"), "> one\r\n");
    std::vector<int> waiting;
    std::string seen;
    // Each connection is one more record.
    for (int i = 0; i < 120; i++) {
        const int client =
            socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, name_.c_str(), sizeof address.sun_path - 1);
        static_cast<void>(!connect(
            client, reinterpret_cast<sockaddr *>(&address), sizeof address));
        waiting.push_back(client);
        usleep(1000);
    }
    const auto stopped = [&] {
        const std::string before = log();
        usleep(200000);
        return log() == before;
    };
    ASSERT_TRUE(eventually(stopped));
    ASSERT_TRUE(write_all(session.client, "two\n"));
    char byte;
    usleep(300000);
    EXPECT_EQ(recv(session.client, &byte, 1, MSG_DONTWAIT), -1);
    // It goes on as soon as somebody reads.
    ASSERT_TRUE(connection.receive());
    while (!connection.silent(200) && connection.receive()) {
    }
    EXPECT_EQ(read_until(session.client, "\n"), "> two\r\n");
    for (const int client : waiting) {
        close(client);
    }
    close(session.client);
}

TEST_F(HazardTest, after_a_second_path_permit_nobody_can_connect)
{
    FakeInetd inetd;
    Daemon daemon([&] {
        must_register(relaying(AF_UNIX, 0, name_.c_str(), 7));
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request);
    ASSERT_TRUE(connection.permit(*request));
    ASSERT_TRUE(eventually([&] {
        return path_listens(name_);
    }));
    ASSERT_TRUE(connection.permit(*request));
    ASSERT_TRUE(logged("vc: bind path " + name_ + " success", 2));
    // The name belongs to the second socket, which was closed again.
    EXPECT_TRUE(eventually([&] {
        return !path_listens(name_);
    }));
}

TEST_F(HazardTest, sessions_end_with_the_connection_to_the_inetd)
{
    FakeInetd inetd;
    Daemon daemon([&] {
        must_register(relaying(AF_UNIX, 0, name_.c_str(), 7));
    });
    InetdConnection connection = inetd.accept();
    const Session session = session_on(&connection);
    ASSERT_GE(session.client, 0);
    connection.close_now();
    EXPECT_TRUE(ended(session.client));
    EXPECT_TRUE(daemon.has_no_children());
    close(session.client);
}

// The connection is renewed after a listener that failed, and what was still
// to be read on the old one is gone: that service counts as announced.
TEST_F(HazardTest, a_failed_permit_loses_the_permits_behind_it)
{
    FakeInetd inetd;
    Daemon daemon([&] {
        must_register(relaying(AF_INET, free_port(AF_INET), nullptr, 6));
        must_register(relaying(AF_UNIX, 0, name_.c_str(), 7));
    });
    InetdConnection connection = inetd.accept();
    auto bad = connection.receive();
    const auto good = connection.receive();
    ASSERT_TRUE(bad && good);
    bad->socktype = AF_NETLINK;
    tty_cmsg both[] = {*bad, *good};
    ASSERT_TRUE(connection.send_bytes(both, sizeof both));
    EXPECT_TRUE(connection.closed_by_peer());
    InetdConnection next = inetd.accept();
    const auto again = next.receive();
    ASSERT_TRUE(again);
    EXPECT_EQ(again->protocol, 6);
    EXPECT_TRUE(next.silent(300));
    EXPECT_FALSE(path_listens(name_));
}

// A second thread of the daemon that does what the test says, a letter each.
static int g_orders[2];
static int g_port;

static void obey(char order)
{
    switch (order) {
    case 'o':
        vc_deal_service_listen(true, 6);
        break;
    case 's':
        vc_deal_service_listen(false, 6);
        break;
    case 'd':
        vc_service_del(g_port);
        break;
    default:
        break;
    }
    vc_debug_msg("test: done %c\n", order);
}

static void take_orders()
{
    sigset_t all;
    sigset_t before;

    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread([] {
        char order;
        while (read(g_orders[0], &order, 1) == 1) {
            obey(order);
        }
    }).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// A service on a port, and a thread that takes orders about it.
class OrderedHazardTest : public HazardTest
{
  protected:
    void SetUp() override
    {
        HazardTest::SetUp();
        g_port = free_port(AF_INET);
        ASSERT_EQ(pipe2(g_orders, O_CLOEXEC), 0);
    }

    void TearDown() override
    {
        close(g_orders[0]);
        close(g_orders[1]);
        HazardTest::TearDown();
    }

    static void prepare()
    {
        must_register(relaying(AF_INET, g_port, nullptr, 6));
        take_orders();
    }

    bool order(char what, int times = 1) const
    {
        return write(g_orders[1], &what, 1) == 1 &&
               logged(std::string("test: done ") + what + "\n", times);
    }

    static bool connects()
    {
        const int fd = connect_port(AF_INET, g_port);
        if (fd >= 0) {
            close(fd);
        }
        return fd >= 0;
    }
};

TEST_F(OrderedHazardTest, opened_after_a_stop_and_a_lost_inetd_it_is_silent)
{
    FakeInetd inetd;
    Daemon daemon(prepare);
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request);
    ASSERT_TRUE(connection.permit(*request));
    ASSERT_TRUE(logged("vc: bind v4 success\r\n"));
    ASSERT_TRUE(order('s'));
    connection.close_now();
    InetdConnection next = inetd.accept();
    const auto again = next.receive();
    ASSERT_TRUE(again);
    ASSERT_TRUE(next.permit(*again));
    // Says when the permit has been looked at, which is ignored silently.
    tty_cmsg marker = {};
    marker.vc_flag = 0x002;
    marker.ttyno = 258;
    ASSERT_TRUE(next.send(marker));
    ASSERT_TRUE(logged("vc: client (ttyno=258) clear\r\n"));
    ASSERT_TRUE(order('o'));
    EXPECT_TRUE(next.silent(500));
    EXPECT_FALSE(connects());
    // What brings it back.
    ASSERT_TRUE(order('s', 2));
    ASSERT_TRUE(order('o', 2));
    std::optional<tty_cmsg> third;
    // A wake-up that comes just before the wait is lost.
    for (int i = 0; i < 100 && !(third = next.receive(200)); i++) {
        kill(daemon.pid(), SIGHUP);
    }
    ASSERT_TRUE(third);
    ASSERT_TRUE(next.permit(*third));
    EXPECT_TRUE(eventually(connects));
}

TEST_F(OrderedHazardTest, deleted_service_listens_until_the_wait_ends)
{
    FakeInetd inetd;
    Daemon daemon(prepare);
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request);
    ASSERT_TRUE(connection.permit(*request));
    ASSERT_TRUE(logged("vc: bind v4 success\r\n"));
    // The loop waits by then.
    ASSERT_TRUE(connection.silent(500));
    ASSERT_TRUE(order('d'));
    EXPECT_TRUE(connects());
    EXPECT_TRUE(eventually([&] {
        kill(daemon.pid(), SIGHUP);
        return !connects();
    }));
}

// It is not announced on the new connection, and the permit that the old one
// brought is lost.
TEST_F(HazardTest, a_port_moved_after_a_failed_permit_is_not_announced)
{
    FakeInetd inetd;
    g_port = free_port(AF_INET);
    static int new_port;
    new_port = free_port(AF_INET);
    Daemon daemon([&] {
        must_register(relaying(AF_INET, g_port, nullptr, 6));
        must_register(relaying(AF_UNIX, 0, name_.c_str(), 7));
        std::thread([] {
            while (__atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) < 0) {
                usleep(1000);
            }
            vc_debug_msg("test: ready\n");
            while (__atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) >= 0) {
                usleep(100);
            }
            vc_debug_msg("test: moved %d\n",
                         vc_service_update_port(6, g_port, new_port));
        }).detach();
    });
    InetdConnection connection = inetd.accept();
    ASSERT_TRUE(connection.receive());
    auto bad = connection.receive();
    ASSERT_TRUE(bad);
    ASSERT_TRUE(logged("test: ready\n"));
    memset(bad->path, 'x', sizeof bad->path);
    ASSERT_TRUE(connection.permit(*bad));
    EXPECT_TRUE(connection.closed_by_peer());
    EXPECT_TRUE(logged("test: moved 0\n"));
    InetdConnection next = inetd.accept();
    ASSERT_TRUE(logged("): after vc_open_listen ret ", 2));
    EXPECT_TRUE(next.silent(500));
    EXPECT_EQ(connect_port(AF_INET, new_port), -1);
}

// Sessions survive a failed permit, but the loop does nothing else until it has
// a connection again.
TEST_F(HazardTest, without_the_inetd_no_session_is_relayed)
{
    auto inetd = std::make_unique<FakeInetd>();
    Daemon daemon([&] {
        must_register(relaying(AF_UNIX, 0, name_.c_str(), 7));
    });
    InetdConnection connection = inetd->accept();
    const Session session = session_on(&connection);
    ASSERT_GE(session.client, 0);
    ASSERT_TRUE(write_all(session.client, "one\n"));
    ASSERT_EQ(read_until(session.client, "\n"), "> one\r\n");
    inetd.reset();
    tty_cmsg bad = {};
    bad.vc_flag = 0x080;
    bad.pid = daemon.pid();
    bad.socktype = AF_UNIX;
    bad.protocol = 7;
    memset(bad.path, 'x', sizeof bad.path);
    ASSERT_TRUE(connection.send(bad));
    EXPECT_TRUE(connection.closed_by_peer());
    ASSERT_TRUE(logged("vc: connect inetd fail"));
    ASSERT_TRUE(write_all(session.client, "two\n"));
    char byte;
    usleep(500000);
    EXPECT_EQ(recv(session.client, &byte, 1, MSG_DONTWAIT), -1);
    FakeInetd late;
    const InetdConnection next = late.accept();
    EXPECT_EQ(read_until(session.client, "\n"), "> two\r\n");
    close(session.client);
}
