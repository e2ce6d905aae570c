// What a daemon makes of its connection to the inetd: lost, renewed, and what
// comes on it that no inetd should say.
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"

// A daemon with one service on a path, known to an inetd.
class SystemInetd : public SystemTest
{
  protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        name_ = path("/s");
        inetd_ = std::make_unique<FakeInetd>();
    }
    void TearDown() override
    {
        close(session_.client);
        connection_.close_now();
        daemon_.reset();
        inetd_.reset();
        SystemTest::TearDown();
    }

    // What else the daemon does before its loop runs.
    void start(const std::function<void()> &prepare = [] {})
    {
        daemon_ = std::make_unique<Daemon>([&] {
            must_register(relaying(AF_UNIX, 0, name_.c_str(), 7));
            prepare();
        });
        connection_ = inetd_->accept();
    }
    // A client on line 300.
    void start_and_log_in(const std::function<void()> &prepare = [] {})
    {
        start(prepare);
        session_ = log_in(&connection_, [&] {
            return connect_path(name_);
        });
        ASSERT_GE(session_.client, 0);
    }
    // It is answered, and the connection is renewed; sessions go on.
    bool send_a_permit_that_fails()
    {
        tty_cmsg bad = {};

        bad.vc_flag = 0x080;
        bad.pid = daemon_->pid();
        bad.socktype = AF_UNIX;
        bad.protocol = 7;
        memset(bad.path, 'x', sizeof bad.path);
        return connection_.send(bad);
    }

    std::string name_;
    std::unique_ptr<FakeInetd> inetd_;
    std::unique_ptr<Daemon> daemon_;
    InetdConnection connection_{-1};
    Session session_;
};

// Takes a line back; what the daemon answers.
static std::optional<tty_cmsg> clear(InetdConnection *connection, int line)
{
    tty_cmsg record = {};

    record.vc_flag = 0x002;
    record.ttyno = line;
    return connection->send(record) ? connection->receive() : std::nullopt;
}

TEST_F(SystemTest, a_lost_inetd_is_reconnected_and_told_everything_again)
{
    FakeInetd inetd;
    const int port = free_port(AF_INET);
    Daemon daemon([&] {
        must_register(relaying(AF_INET, port, nullptr, 6));
    });
    size_t before = 0;
    for (int round = 0; round < 3; round++) {
        InetdConnection connection = inetd.accept();
        const auto request = connection.receive();
        ASSERT_TRUE(request) << round;
        ASSERT_TRUE(connection.permit(*request));
        ASSERT_TRUE(logged("vc: bind v4 success\r\n", round + 1));
        if (round == 1) {
            before = daemon.descriptors().size();
        }
        connection.close_now();
        EXPECT_TRUE(logged("):vc_service_start before close fd ", round + 1));
    }
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request);
    // Without the listener, which the reset closed, and the log file.
    EXPECT_TRUE(daemon.settles_at(before - 1));
}

TEST_F(SystemTest, a_short_record_ends_the_connection)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(relaying(AF_INET, 23, nullptr, 6));
    });
    InetdConnection connection = inetd.accept();
    ASSERT_TRUE(connection.receive());
    const char part[155] = {};
    ASSERT_TRUE(connection.send_bytes(part, sizeof part));
    EXPECT_TRUE(connection.closed_by_peer());
    EXPECT_TRUE(logged("vc: recv fail ret 155, err["));
    InetdConnection next = inetd.accept();
    EXPECT_TRUE(next.receive());
}

TEST_F(SystemTest, after_a_listener_failed_the_inetd_is_told_and_reconnected)
{
    FakeInetd inetd;
    const int port = free_port(AF_INET);
    Daemon daemon([&] {
        must_register(relaying(AF_INET, port, nullptr, 6));
    });
    InetdConnection connection = inetd.accept();
    auto request = connection.receive();
    ASSERT_TRUE(request);
    request->socktype = AF_NETLINK;
    ASSERT_TRUE(connection.permit(*request));
    const auto answer = connection.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->vc_flag, 0x010u);
    EXPECT_TRUE(connection.closed_by_peer());
    InetdConnection next = inetd.accept();
    EXPECT_TRUE(next.receive());
}

// The renewed connection must not leave anything to the old one: neither
// clients that wait for a line, nor the number that sessions know it by.
TEST_F(SystemInetd, clients_without_a_line_are_dropped_with_the_connection)
{
    start();
    const auto request = connection_.receive();
    ASSERT_TRUE(request);
    ASSERT_TRUE(connection_.permit(*request));
    int client = -1;
    ASSERT_TRUE(eventually([&] {
        return (client = connect_path(name_)) >= 0;
    }));
    const auto report = connection_.receive();
    ASSERT_TRUE(report);
    tty_cmsg bad = *request;
    memset(bad.path, 'x', sizeof bad.path);
    ASSERT_TRUE(connection_.send(bad));
    const auto answer = connection_.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->vc_flag, 0x100u);
    EXPECT_TRUE(ended(client));
    EXPECT_TRUE(logged("):vc_deal_msg close all socket fd, err "));
    close(client);
}

static int g_spare;

static int give_spare_back(int, int, int, int)
{
    close(g_spare);
    return 0;
}

static int nothing(int)
{
    return 0;
}

TEST_F(SystemTest, a_session_older_than_the_connection_reports_its_end)
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
        // Lower than the connection, and free when it is renewed.
        g_spare = dup(0);
        reg.alloc_func = give_spare_back;
        reg.read_func = nothing;
        reg.write_func = nothing;
        must_register(reg);
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request);
    ASSERT_TRUE(connection.permit(*request));
    int client = -1;
    ASSERT_TRUE(eventually([&] {
        return (client = connect_path(name)) >= 0;
    }));
    ASSERT_TRUE(connection.assign(*connection.receive(), 300));
    const auto success = connection.receive();
    ASSERT_TRUE(success);
    tty_cmsg bad = *request;
    memset(bad.path, 'x', sizeof bad.path);
    ASSERT_TRUE(connection.send(bad));
    ASSERT_TRUE(connection.receive());
    InetdConnection next = inetd.accept();
    ASSERT_TRUE(logged("): connect inetd vc_fd ", 2));
    const auto clean = clear(&next, 300);
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->vc_flag, 0x002u);
    EXPECT_EQ(clean->ttyno, 300);
    EXPECT_EQ(clean->pid, success->pid);
    close(client);
}

// A program that is a function of the daemon's has all of its descriptors.
TEST_F(SystemInetd, a_connection_given_up_ends_though_a_program_holds_it_too)
{
    ASSERT_NO_FATAL_FAILURE(start_and_log_in());
    ASSERT_TRUE(send_a_permit_that_fails());
    EXPECT_TRUE(connection_.closed_by_peer());
    EXPECT_TRUE(process_runs(session_.pid));
}

// A datagram socket without a peer: what is written there fails for a reason
// that might pass.
static void take_the_number_of_the_connection()
{
    while (__atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) < 0) {
        usleep(1000);
    }
    while (__atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) >= 0) {
        usleep(1000);
    }
    for (int i = 0; i < 8; i++) {
        static_cast<void>(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
}

TEST_F(SystemInetd,
       a_session_that_outlives_its_connection_does_not_stop_the_loop)
{
    ASSERT_NO_FATAL_FAILURE(start_and_log_in([] {
        std::thread(take_the_number_of_the_connection).detach();
    }));
    ASSERT_TRUE(send_a_permit_that_fails());
    ASSERT_TRUE(connection_.receive());
    InetdConnection next = inetd_->accept();
    ASSERT_TRUE(logged("): connect inetd vc_fd ", 2));
    const auto clean = clear(&next, 300);
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->ttyno, 300);
}

// As an answer to a client that has gone names one: every wait that watched
// it would fail at once.
TEST_F(SystemInetd, a_line_for_a_closed_descriptor_does_not_stop_the_others)
{
    ASSERT_NO_FATAL_FAILURE(start_and_log_in());
    const auto numbers = daemon_->descriptors();
    tty_cmsg late = {};
    late.vc_flag = 0x001;
    late.ttyno = 301;
    // The master of the new line takes the lowest free number, this is the
    // highest that a small table of descriptors has room for.
    late.sockfd = 63;
    while (std::count(numbers.begin(), numbers.end(), late.sockfd) != 0) {
        late.sockfd--;
    }
    late.socktype = AF_UNIX;
    strcpy(late.path, name_.c_str());
    ASSERT_TRUE(connection_.send(late));
    const auto success = connection_.receive();
    ASSERT_TRUE(success);
    EXPECT_EQ(success->vc_flag, 0x020u);
    ASSERT_TRUE(write_all(session_.client, "still here\n"));
    EXPECT_EQ(read_until(session_.client, "\n"), "> still here\r\n");
    // The line itself can be cleared.
    const auto clean = clear(&connection_, 301);
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->ttyno, 301);
}

// The descriptor of a line that does not exist is closed. Services would count
// as announced to an inetd that never heard of them, were it not for the reset.
TEST_F(SystemInetd,
       a_record_that_closes_the_connection_itself_resets_everything)
{
    ASSERT_NO_FATAL_FAILURE(start_and_log_in());
    const std::string said = ": connect inetd vc_fd ";
    tty_cmsg record = {};
    record.vc_flag = 0x001;
    record.ttyno = 1600;
    record.sockfd = std::stoi(log().substr(log().find(said) + said.size()));
    ASSERT_TRUE(connection_.send(record));
    InetdConnection next = inetd_->accept();
    const auto request = next.receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->vc_flag, 0x080u);
    EXPECT_TRUE(ended(session_.client));
    EXPECT_TRUE(logged("vc: recv fail ret "));
    EXPECT_TRUE(logged(":vc_service_start before close fd "));
    // And it serves again.
    ASSERT_TRUE(next.permit(*request));
    EXPECT_TRUE(eventually([&] {
        return path_listens(name_);
    }));
}

// The record says so itself; there is nothing to watch then.
TEST_F(SystemInetd, a_line_without_a_connection_runs_until_it_is_cleared)
{
    start();
    ASSERT_TRUE(connection_.receive());
    tty_cmsg record = {};
    record.vc_flag = 0x001;
    record.ttyno = 301;
    record.sockfd = -1;
    record.socktype = AF_UNIX;
    strcpy(record.path, name_.c_str());
    ASSERT_TRUE(connection_.send(record));
    const auto success = connection_.receive();
    ASSERT_TRUE(success);
    EXPECT_EQ(success->vc_flag, 0x020u);
    EXPECT_TRUE(connection_.silent(100));
    EXPECT_TRUE(process_runs(success->pid));
    record.vc_flag = 0x002;
    ASSERT_TRUE(connection_.send(record));
    const auto clean = connection_.receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->ttyno, 301);
    EXPECT_EQ(clean->pid, success->pid);
}
