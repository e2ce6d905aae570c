#include "vc/listen.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/listen_fixture.h"

using support::exists;
using support::spill;

static std::string error_text(int error)
{
    return std::string("errno=") + std::to_string(error) + " " +
           strerror(error);
}

TEST_F(ListenTest, a_null_permit_is_refused)
{
    EXPECT_EQ(vc_listen(nullptr, nullptr), -1);
    expect_messages({"vc: tty_cmsg is null\r\n"});
}

TEST_F(ListenTest, an_ipv4_listener_is_bound_and_says_so)
{
    const int port = unused_port(AF_INET);
    const tty_cmsg msg = permit(AF_INET, port);
    const int fd = vc_listen(&msg, nullptr);
    ASSERT_GE(fd, 0);
    expect_messages(
        {"vc: sock_type 2, port:" + std::to_string(port) + "\r\n",
         "vc: open listen socket inet " + std::to_string(fd) + "\r\n",
         "vc: bind v4 success\r\n"});
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    EXPECT_EQ(ntohs(address.sin_port), port);
    EXPECT_EQ(address.sin_addr.s_addr, INADDR_ANY);
    EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    close(fd);
}

static int g_listener;
static int g_flags;

// From the start: another thread may start a program before the flag is set.
TEST_F(ListenTest, a_listener_is_born_close_on_exec)
{
    const tty_cmsg msg = permit(AF_INET, unused_port(AF_INET));
    g_listener = dup(0);
    close(g_listener);
    fault::run(
        "fcntl", 1,
        [] {
            g_flags = fcntl(g_listener, F_GETFD);
        },
        1, fault::only_what(F_SETFD));
    const int fd = vc_listen(&msg, nullptr);
    ASSERT_EQ(fd, g_listener);
    EXPECT_EQ(g_flags, FD_CLOEXEC);
    close(fd);
}

static int bound_port(int fd)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;

    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

TEST_F(ListenTest, of_a_port_out_of_range_the_last_16_bits_count)
{
    const struct {
        int asked;
        int bound;
    } ports[] = {{70000, 4464}, {-5, 65531}};
    for (const auto &port : ports) {
        add(plain(AF_INET, port.asked, nullptr, 6));
        const tty_cmsg msg = permit(AF_INET, port.asked);
        const int fd = vc_listen(&msg, nullptr);
        ASSERT_GE(fd, 0) << port.asked;
        EXPECT_EQ(bound_port(fd), port.bound);
        close(fd);
    }
}

TEST_F(ListenTest, tos_is_set_only_when_the_permit_has_one)
{
    tty_cmsg msg = permit(AF_INET, unused_port(AF_INET));
    const int calls = fault::watch("setsockopt");
    int fd = vc_listen(&msg, nullptr);
    EXPECT_EQ(int_option(fd, IPPROTO_IP, IP_TOS), 0);
    EXPECT_EQ(fault::seen(calls), 3);
    close(fd);
    msg.tos = 0x10;
    fd = vc_listen(&msg, nullptr);
    EXPECT_EQ(int_option(fd, IPPROTO_IP, IP_TOS), 0x10);
    EXPECT_EQ(fault::seen(calls), 7);
    close(fd);
}

TEST_F(ListenTest, tos_0_is_set)
{
    tty_cmsg msg = permit(AF_INET, unused_port(AF_INET));
    msg.tos = 0;
    const int calls = fault::watch("setsockopt");
    const int fd = vc_listen(&msg, nullptr);
    EXPECT_EQ(fault::seen(calls), 4);
    close(fd);
}

TEST_F(ListenTest, an_ipv6_listener_leaves_ipv4_alone)
{
    const int port = unused_port(AF_INET6);
    tty_cmsg msg = permit(AF_INET6, port);
    msg.tos = 0x20;
    const int fd6 = vc_listen(&msg, nullptr);
    ASSERT_GE(fd6, 0);
    expect_messages(
        {"vc: sock_type 10, port:" + std::to_string(port) + "\r\n",
         "vc: open listen socket inet6 " + std::to_string(fd6) + "\r\n",
         "vc: bind v6 success\r\n"});
    EXPECT_EQ(int_option(fd6, IPPROTO_IPV6, IPV6_V6ONLY), 1);
    EXPECT_EQ(int_option(fd6, IPPROTO_IPV6, IPV6_TCLASS), 0x20);
    const tty_cmsg msg4 = permit(AF_INET, port);
    const int fd4 = vc_listen(&msg4, nullptr);
    EXPECT_GE(fd4, 0);
    close(fd4);
    close(fd6);
}

TEST_F(ListenTest, a_unix_listener_replaces_a_stale_socket_file)
{
    make_directories();
    const std::string name = path("/s");
    spill(name, "left over");
    const tty_cmsg msg = permit(AF_UNIX, 0);
    const int fd = vc_listen(&msg, name.c_str());
    ASSERT_GE(fd, 0);
    expect_messages(
        {"vc: sock_type 1, port:0\r\n",
         "vc: open listen socket unix " + std::to_string(fd) + "\r\n",
         "vc: bind path " + name + " success.\r\n"});
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    EXPECT_EQ(std::string(address.sun_path), name);
    close(fd);
}

TEST_F(ListenTest, a_stale_socket_file_that_cannot_be_removed_fails_the_bind)
{
    fault_row("vc_listen", "unlink", "EACCES", "-1",
              "vc: bind %ssocket failed, sk=%d/ret=%d/errno=%d,%s\r\n",
              "the stale file; the socket closed");
    const std::string name = path("/s");
    const tty_cmsg msg = permit(AF_UNIX, 0);
    support::spill(name, "");
    fault::fail("unlink", 1, EACCES);
    EXPECT_EQ(vc_listen(&msg, name.c_str()), -1);
    const std::string end = "/ret=-1/errno=" + std::to_string(EADDRINUSE) +
                            "," + strerror(EADDRINUSE) + "\r\n";
    const auto texts = messages();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back().find("vc: bind socket failed, sk="), 0u);
    EXPECT_EQ(texts.back().substr(texts.back().size() - end.size()), end);
    EXPECT_TRUE(support::exists(name));
}

TEST_F(ListenTest, a_path_of_63_characters_is_taken_and_64_refused)
{
    std::string name = path("/");
    name += std::string(63 - name.size(), 's');
    const tty_cmsg msg = permit(AF_UNIX, 0);
    const int fd = vc_listen(&msg, name.c_str());
    EXPECT_GE(fd, 0);
    close(fd);
    messages();
    name += 's';
    EXPECT_EQ(vc_listen(&msg, name.c_str()), -1);
    expect_messages({"vc: sock_type 1, port:0\r\n", "vc: illegal path\r\n"});
}

TEST_F(ListenTest, a_unix_permit_without_path_is_refused)
{
    const tty_cmsg msg = permit(AF_UNIX, 0);
    EXPECT_EQ(vc_listen(&msg, nullptr), -1);
    EXPECT_TRUE(logged("vc: illegal path\r\n"));
}

TEST_F(ListenTest, another_family_is_refused_after_its_socket_exists)
{
    const tty_cmsg msg = permit(AF_NETLINK, 0);
    fault::result("socket", 1, dup(0));
    EXPECT_EQ(vc_listen(&msg, nullptr), -1);
    expect_messages(
        {"vc: sock_type 16, port:0\r\n", "vc: sock_type:16 is wrong.\r\n"});
}

TEST_F(ListenTest, the_backlog_is_50)
{
    // Connections beyond the backlog of a unix socket are refused at once:
    // the kernel queues one more than it is told.
    const std::string name = path("/s");
    const tty_cmsg msg = permit(AF_UNIX, 0);
    const int fd = vc_listen(&msg, name.c_str());
    ASSERT_GE(fd, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, name.c_str());
    std::vector<int> clients;
    for (;;) {
        const int client =
            socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const bool queued =
            connect(client, reinterpret_cast<sockaddr *>(&address),
                    sizeof address) == 0;
        if (!queued) {
            EXPECT_EQ(errno, EAGAIN);
            close(client);
            break;
        }
        clients.push_back(client);
    }
    EXPECT_EQ(clients.size(), 51u);
    for (const int client : clients) {
        close(client);
    }
    close(fd);
}

TEST_F(ListenTest, a_tipc_listener_is_bound_to_its_name_sequence)
{
    // The kernel may lack the family: socket and bind are played.
    tty_cmsg msg = permit(30, 0);
    msg.tipc_addrtype = 0x101;
    msg.tipc_scope = 0x2ff;
    msg.tipc_type = 1;
    msg.tipc_lower = 2;
    msg.tipc_upper = 3;
    fault::result("socket", 1, socket(AF_UNIX, SOCK_STREAM, 0));
    fault::result("bind", 1, 0);
    fault::result("setsockopt", 1, 0, fault::ALWAYS);
    fault::result("listen", 1, 0);
    const int fd = vc_listen(&msg, nullptr);
    EXPECT_GE(fd, 0);
    expect_messages({"vc: sock_type 30, port:0\r\n",
                     "vc: tipc addrtype(1), scope(-1), nameseq_type(1), "
                     "nameseq_lower(2), nameseq_upper(3)\n",
                     "vc: bind tipc success\r\n"});
    close(fd);
}

TEST_F(ListenTest, a_socket_that_cannot_be_made_is_reported)
{
    fault_row("vc_listen", "socket", "EMFILE", "-1",
              "vc: open socket failed, errno=%d %s\r\n", "");
    const tty_cmsg msg = permit(AF_INET, 1);
    fault::fail("socket", 1, EMFILE);
    EXPECT_EQ(vc_listen(&msg, nullptr), -1);
    EXPECT_TRUE(
        logged("vc: open socket failed, " + error_text(EMFILE) + "\r\n"));
}

TEST_F(ListenTest, close_on_exec_that_fails_fails_the_listener)
{
    fault_row("vc_listen", "fcntl", "EINVAL", "-1",
              "vc: fcntl socket fd failed, errno=%d %s\r\n",
              "the socket closed");
    const tty_cmsg msg = permit(AF_INET, 1);
    fault::fail("fcntl", 1, EINVAL, 1, fault::only_what(F_SETFD));
    EXPECT_EQ(vc_listen(&msg, nullptr), -1);
    EXPECT_TRUE(
        logged("vc: fcntl socket fd failed, " + error_text(EINVAL) + "\r\n"));
}

struct OptionCase {
    int family;
    int nth;
    const char *what;
    bool fatal;
};

class ListenOption : public ListenTest,
                     public testing::WithParamInterface<OptionCase>
{
};

TEST_P(ListenOption, failure_is_logged_and_fatal_or_not)
{
    fault_row("vc_listen", "setsockopt", "ENOBUFS",
              "-1; the descriptor, if it was the VRF option or a path's first "
              "SO_REUSEADDR",
              "vc:set %s fd %d error: %s.\n",
              "the socket closed, when it is -1");
    const OptionCase &option = GetParam();
    const std::string name = path("/s");
    tty_cmsg msg =
        permit(option.family,
               option.family == AF_UNIX ? 0 : unused_port(option.family));
    msg.tos = 4;
    fault::fail("setsockopt", option.nth, ENOBUFS);
    const int fd =
        vc_listen(&msg, option.family == AF_UNIX ? name.c_str() : nullptr);
    EXPECT_EQ(fd < 0, option.fatal);
    const std::string start = std::string("vc:set ") + option.what + " fd ";
    const std::string end = std::string(" error: ") + strerror(ENOBUFS) + ".\n";
    bool found = false;
    for (const std::string &text : messages()) {
        found = found || (text.find(start) == 0 &&
                          text.substr(text.size() - end.size()) == end);
    }
    EXPECT_TRUE(found) << start;
    if (fd >= 0) {
        close(fd);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Each, ListenOption,
    testing::Values(OptionCase{AF_INET, 1, "reuseaddr", true},
                    OptionCase{AF_INET, 2, "tos", true},
                    OptionCase{AF_INET, 3, "reuseaddr2", true},
                    OptionCase{AF_INET, 4, "vrf incoming", false},
                    OptionCase{AF_INET6, 1, "reuseaddr1", true},
                    OptionCase{AF_INET6, 2, "ipv6only", true},
                    OptionCase{AF_INET6, 3, "tos", true},
                    OptionCase{AF_INET6, 4, "reuseaddr2", true},
                    OptionCase{AF_INET6, 5, "vrf incoming", false},
                    OptionCase{AF_UNIX, 1, "reuse", false},
                    OptionCase{AF_UNIX, 2, "reuseaddr2", true},
                    OptionCase{AF_UNIX, 3, "vrf incoming", false}));

struct BindCase {
    int family;
    const char *what;
};

class ListenBind : public ListenTest,
                   public testing::WithParamInterface<BindCase>
{
};

TEST_P(ListenBind, failure_is_logged_and_closes_the_socket)
{
    fault_row("vc_listen", "bind", "EADDRINUSE", "-1",
              "vc: bind %ssocket failed, sk=%d/ret=%d/errno=%d,%s\r\n",
              "the socket closed");
    const int family = GetParam().family;
    const std::string name = path("/s");
    const tty_cmsg msg = permit(family, 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    fault::result("socket", 1, fd);
    fault::result("setsockopt", 1, 0, fault::ALWAYS);
    fault::fail("bind", 1, EADDRINUSE);
    EXPECT_EQ(vc_listen(&msg, family == AF_UNIX ? name.c_str() : nullptr), -1);
    EXPECT_TRUE(logged(std::string("vc: bind ") + GetParam().what +
                       "socket failed, sk=" + std::to_string(fd) +
                       "/ret=-1/errno=" + std::to_string(EADDRINUSE) + "," +
                       strerror(EADDRINUSE) + "\r\n"));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

INSTANTIATE_TEST_SUITE_P(Each, ListenBind,
                         testing::Values(BindCase{AF_INET, ""},
                                         BindCase{AF_INET6, "v6 "},
                                         BindCase{AF_UNIX, ""},
                                         BindCase{30, "tipc "}));

TEST_F(ListenTest, a_port_in_use_fails_the_bind)
{
    fault_row("vc_listen", "bind", "EADDRINUSE", "-1", "", "the socket closed");
    const int port = unused_port(AF_INET);
    const tty_cmsg msg = permit(AF_INET, port);
    const int fd = vc_listen(&msg, nullptr);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(vc_listen(&msg, nullptr), -1);
    close(fd);
}

TEST_F(ListenTest, listen_that_fails_is_reported)
{
    fault_row("vc_listen", "listen", "EADDRINUSE", "-1",
              "vc: listen socket failed, sk=%d/ret=%d/errno=%d %s\r\n",
              "the socket closed");
    const tty_cmsg msg = permit(AF_INET, unused_port(AF_INET));
    fault::fail("listen", 1, EADDRINUSE);
    EXPECT_EQ(vc_listen(&msg, nullptr), -1);
    const auto texts = messages();
    const std::string end = "/ret=-1/" + error_text(EADDRINUSE) + "\r\n";
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back().find("vc: listen socket failed, sk="), 0u);
    EXPECT_EQ(texts.back().substr(texts.back().size() - end.size()), end);
}
