// Services over TIPC, on a kernel that has the family. The client is a process
// of its own, as its connect may last until the daemon accepts.
#include <linux/tipc.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"

struct Name {
    uint8_t scope;
    uint32_t type;
    uint32_t lower;
    uint32_t upper;
};

constexpr Name VTY_NAME = {TIPC_NODE_SCOPE, 0x11223344, 10, 20};
constexpr Name BARE_NAME = {TIPC_CLUSTER_SCOPE, 0x55667788, 0, 5};

static int connect_name(const Name &name, uint32_t instance)
{
    const int fd = socket(AF_TIPC, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_tipc address = {};

    address.family = AF_TIPC;
    address.addrtype = TIPC_SERVICE_ADDR;
    address.addr.name.name.type = name.type;
    address.addr.name.name.instance = instance;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address),
                sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// False when a side has ended.
static bool pass_on(int from, int to)
{
    char buf[4096];
    const ssize_t got = read(from, buf, sizeof buf);

    return got > 0 &&
           send(to, buf, static_cast<size_t>(got), MSG_NOSIGNAL) == got;
}

static void relay(int one, int other)
{
    struct pollfd both[] = {{one, POLLIN, 0}, {other, POLLIN, 0}};

    while (poll(both, 2, DEADLINE_MS) > 0) {
        if ((both[0].revents != 0 && !pass_on(one, other)) ||
            (both[1].revents != 0 && !pass_on(other, one))) {
            return;
        }
    }
}

// A client: what the test writes to fd() goes out on the connection, and the
// connection's end is the end of fd().
class Client
{
  public:
    Client(const Name &name, uint32_t instance)
    {
        int pair[2];

        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(pair[0]);
            int connection = -1;
            // Between the bind and the listen a name is known and refuses.
            eventually([&] {
                return (connection = connect_name(name, instance)) >= 0;
            });
            relay(pair[1], connection);
            _exit(0);
        }
        close(pair[1]);
        fd_ = pair[0];
    }
    ~Client()
    {
        leave();
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    int fd() const
    {
        return fd_;
    }
    void leave()
    {
        if (fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
    }

  private:
    pid_t pid_;
    int fd_;
};

// Whether a client of its own is connected; never waits for the daemon.
static bool reachable(const Name &name, uint32_t instance)
{
    const pid_t pid = fork();
    int status = 0;

    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(DEADLINE_MS / 1000);
        _exit(connect_name(name, instance) >= 0 ? 0 : 1);
    }
    return waitpid(pid, &status, 0) == pid && status == 0;
}

static int connection_of[TTY_LINES];

static int keep_connection(int ttyno, int, int sockfd, int)
{
    connection_of[ttyno] = sockfd;
    return 0;
}

static int wrongly_relayed(int)
{
    vc_debug_msg("test: relayed\n");
    return -1;
}

// The session program: the connection is its own to use. Says who is there,
// then echoes.
static int serve_connection(int ttyno, const char *)
{
    const int fd = connection_of[ttyno];
    char label[64] = "";
    const char *peer = vc_service_peer(ttyno, label, sizeof label);
    char buf[256];

    if (!write_all(fd, std::string(peer != nullptr ? peer : "null") + "\n")) {
        return 1;
    }
    for (;;) {
        const ssize_t got = read(fd, buf, sizeof buf);
        if (got <= 0 || buf[0] == 'q') {
            return 0;
        }
        write_all(fd, "> " + std::string(buf, static_cast<size_t>(got)));
    }
}

static vc_reg service(uint32_t protocol, int port, const Name &name)
{
    vc_reg reg = relaying(AF_TIPC, port, nullptr, protocol);

    reg.addrtype = TIPC_SERVICE_RANGE;
    reg.scope = name.scope;
    reg.nameseq_type = name.type;
    reg.nameseq_lower = name.lower;
    reg.nameseq_upper = name.upper;
    reg.alloc_func = keep_connection;
    reg.shell_func = serve_connection;
    reg.read_func = wrongly_relayed;
    reg.write_func = wrongly_relayed;
    return reg;
}

// The record's bytes, put together from the places of its fields.
class Bytes
{
  public:
    Bytes() : bytes_(156, '\0')
    {
    }
    Bytes &put(size_t offset, int64_t value)
    {
        const auto word = static_cast<uint32_t>(value);
        memcpy(&bytes_[offset], &word, sizeof word);
        return *this;
    }
    const std::string &text() const
    {
        return bytes_;
    }

  private:
    std::string bytes_;
};

static std::string bytes_of(const tty_cmsg &record)
{
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}

static std::string request_bytes(pid_t pid, int protocol, int port,
                                 const Name &name)
{
    return Bytes()
        .put(0, 0x008)
        .put(12, 30)
        .put(16, port)
        .put(20, protocol)
        .put(24, pid)
        .put(44, 1)
        .put(48, name.scope)
        .put(52, name.type)
        .put(56, name.lower)
        .put(60, name.upper)
        .put(64, -1)
        .text();
}

static std::string report_bytes(pid_t pid, int protocol, int port, int sockfd)
{
    return Bytes()
        .put(0, 0x001)
        .put(8, sockfd)
        .put(12, 30)
        .put(16, port)
        .put(20, protocol)
        .put(24, pid)
        .put(68, 1)
        .text();
}

class Tipc : public SystemTest
{
  protected:
    // One service, up to the line's assignment: the report and the answer to
    // the assignment are checked.
    void log_in(const Daemon &daemon, InetdConnection *connection, int ttyno,
                int protocol, int port);

    int session_pid_ = 0;
};

void Tipc::log_in(const Daemon &daemon, InetdConnection *connection, int ttyno,
                  int protocol, int port)
{
    const auto report = connection->receive();
    ASSERT_TRUE(report);
    ASSERT_GT(report->sockfd, 2);
    EXPECT_EQ(bytes_of(*report),
              report_bytes(daemon.pid(), protocol, port, report->sockfd));
    ASSERT_TRUE(connection->assign(*report, ttyno));
    const auto success = connection->receive();
    ASSERT_TRUE(success);
    EXPECT_EQ(success->vc_flag, 0x020u);
    EXPECT_TRUE(process_runs(success->pid));
    session_pid_ = success->pid;
}

static void expect_clean(InetdConnection *connection, int ttyno, int protocol,
                         int port, int pid)
{
    const auto clean = connection->receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->vc_flag, 0x002u);
    EXPECT_EQ(clean->ttyno, ttyno);
    EXPECT_EQ(clean->port, port);
    EXPECT_EQ(clean->protocol, protocol);
    EXPECT_EQ(clean->pid, pid);
}

TEST_F(Tipc, request_carries_the_name_of_each_service)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(service(3, 4627, VTY_NAME));
        must_register(service(8, 2013, BARE_NAME));
    });
    InetdConnection connection = inetd.accept();
    const auto vty = connection.receive();
    const auto bare = connection.receive();
    ASSERT_TRUE(vty && bare);
    EXPECT_EQ(bytes_of(*vty), request_bytes(daemon.pid(), 3, 4627, VTY_NAME));
    EXPECT_EQ(bytes_of(*bare), request_bytes(daemon.pid(), 8, 2013, BARE_NAME));
    EXPECT_FALSE(reachable(VTY_NAME, VTY_NAME.lower)) << "before the permit";
}

TEST_F(Tipc, protocol_3_session_from_connection_to_clean_line)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(service(3, 4627, VTY_NAME));
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request && connection.permit(*request));
    ASSERT_TRUE(logged("vc: bind tipc success\r\n"));
    const size_t before = daemon.descriptors().size();
    Client client(VTY_NAME, VTY_NAME.upper);
    ASSERT_NO_FATAL_FAILURE(log_in(daemon, &connection, 263, 3, 4627));

    EXPECT_EQ(read_until(client.fd(), "\n"), "vty5()\n");
    ASSERT_TRUE(write_all(client.fd(), "hello\n"));
    EXPECT_EQ(read_until(client.fd(), "\n"), "> hello\n");
    client.leave();

    expect_clean(&connection, 263, 3, 4627, session_pid_);
    EXPECT_TRUE(daemon.has_no_children());
    EXPECT_TRUE(daemon.settles_at(before));
    // Both ends of an accepted connection are sockets, not names.
    EXPECT_TRUE(logged("vc:accept a tipc socket, server: addrtype(3), "));
    EXPECT_TRUE(logged("vc:accept a tipc socket, client: addrtype(3), "));
    EXPECT_EQ(log().find("test: relayed"), std::string::npos);
}

TEST_F(Tipc, protocol_8_session_has_no_label_and_its_own_port)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(service(8, 2013, BARE_NAME));
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request && connection.permit(*request));
    Client client(BARE_NAME, BARE_NAME.lower);
    ASSERT_NO_FATAL_FAILURE(log_in(daemon, &connection, 1458, 8, 2013));

    EXPECT_EQ(read_until(client.fd(), "\n"), "null\n");
    ASSERT_TRUE(write_all(client.fd(), "hello\n"));
    EXPECT_EQ(read_until(client.fd(), "\n"), "> hello\n");
    // The program ends first here.
    ASSERT_TRUE(write_all(client.fd(), "q\n"));
    EXPECT_TRUE(ended(client.fd()));
    expect_clean(&connection, 1458, 8, 2013, session_pid_);
    EXPECT_EQ(log().find("test: relayed"), std::string::npos);
}

TEST_F(Tipc, clear_ends_the_session_and_its_connection)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(service(3, 4627, VTY_NAME));
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request && connection.permit(*request));
    Client client(VTY_NAME, VTY_NAME.lower);
    ASSERT_NO_FATAL_FAILURE(log_in(daemon, &connection, 258, 3, 4627));
    EXPECT_EQ(read_until(client.fd(), "\n"), "vty0()\n");

    tty_cmsg clear = {};
    clear.vc_flag = VC_FLAG_CLIENT_CLEAR;
    clear.ttyno = 258;
    ASSERT_TRUE(connection.send(clear));
    EXPECT_TRUE(ended(client.fd()));
    expect_clean(&connection, 258, 3, 4627, session_pid_);
    EXPECT_TRUE(daemon.has_no_children());
}

TEST_F(Tipc, connection_of_another_protocol_is_closed_without_a_report)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(service(0, 4627, VTY_NAME));
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request && connection.permit(*request));
    ASSERT_TRUE(logged("vc: bind tipc success\r\n"));
    const size_t before = daemon.descriptors().size();
    for (int i = 1; i <= 2; i++) {
        Client client(VTY_NAME, VTY_NAME.lower);
        EXPECT_TRUE(ended(client.fd()));
        EXPECT_TRUE(logged("vc: wrong protocol\n", i));
    }
    EXPECT_TRUE(daemon.settles_at(before));
    EXPECT_TRUE(connection.silent(200));
}

TEST_F(Tipc, second_permit_leaves_the_name_in_service)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(service(3, 4627, VTY_NAME));
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request && connection.permit(*request));
    ASSERT_TRUE(logged("vc: bind tipc success\r\n"));
    const size_t before = daemon.descriptors().size();
    ASSERT_TRUE(connection.permit(*request));
    ASSERT_TRUE(logged("vc: bind tipc success\r\n", 2));
    EXPECT_TRUE(daemon.settles_at(before));
    Client client(VTY_NAME, 15);
    ASSERT_NO_FATAL_FAILURE(log_in(daemon, &connection, 263, 3, 4627));
    EXPECT_EQ(read_until(client.fd(), "\n"), "vty5()\n");
}

TEST_F(Tipc, name_outside_the_range_is_nobody_and_stop_withdraws_the_rest)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(service(3, 4627, VTY_NAME));
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request && connection.permit(*request));
    Client client(VTY_NAME, VTY_NAME.lower);
    ASSERT_NO_FATAL_FAILURE(log_in(daemon, &connection, 263, 3, 4627));
    EXPECT_FALSE(reachable(VTY_NAME, VTY_NAME.lower - 1));
    EXPECT_FALSE(reachable(VTY_NAME, VTY_NAME.upper + 1));

    tty_cmsg stop = {};
    stop.vc_flag = VC_FLAG_STOP_LISTEN;
    stop.protocol = 3;
    stop.pid = daemon.pid();
    ASSERT_TRUE(connection.send(stop));
    EXPECT_TRUE(eventually([] {
        return !reachable(VTY_NAME, VTY_NAME.lower);
    }));
    // The session that is there goes on.
    EXPECT_EQ(read_until(client.fd(), "\n"), "vty5()\n");
    ASSERT_TRUE(write_all(client.fd(), "still\n"));
    EXPECT_EQ(read_until(client.fd(), "\n"), "> still\n");
}

TEST_F(Tipc, name_that_the_kernel_keeps_is_answered_as_a_failure)
{
    FakeInetd inetd;
    Daemon daemon([] {
        must_register(service(3, 4627, {TIPC_NODE_SCOPE, 1, 10, 20}));
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request && connection.permit(*request));
    const auto failure = connection.receive();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->vc_flag, 0x010u);
    EXPECT_EQ(failure->tipc_type, 1u);
    EXPECT_TRUE(connection.closed_by_peer());
    EXPECT_TRUE(logged("vc: bind tipc socket failed, sk="));
    // Announced anew on the next connection.
    InetdConnection next = inetd.accept();
    const auto again = next.receive();
    ASSERT_TRUE(again);
    EXPECT_EQ(bytes_of(*again), bytes_of(*request));
}
