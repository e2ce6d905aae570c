#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/session.h"

constexpr uint32_t ALL_PROTOCOLS = 12;
constexpr int SOCKET = 1000; // never looked at: the peer's address is given

class PeerTest : public VcTest
{
  protected:
    void TearDown() override
    {
        vc_child_clear_all();
        VcTest::TearDown();
    }

    void session(int ttyno, uint32_t protocol, int sockfd = SOCKET)
    {
        child_ = std::make_unique<vc_child>();
        child_->ttyno = ttyno;
        child_->sockfd = sockfd;
        child_->reg.protocol = protocol;
        vc_child_install(ttyno, child_.get());
    }

    static void peer_is_ipv4(const char *address)
    {
        sockaddr_in name = {};
        name.sin_family = AF_INET;
        name.sin_port = htons(40000);
        inet_pton(AF_INET, address, &name.sin_addr);
        fault::name("getpeername", 1, &name, sizeof name);
    }

    static void peer_is_ipv6(const char *address)
    {
        sockaddr_in6 name = {};
        name.sin6_family = AF_INET6;
        inet_pton(AF_INET6, address, &name.sin6_addr);
        fault::name("getpeername", 1, &name, sizeof name);
    }

    static void peer_is(int family, size_t length)
    {
        sockaddr_storage name = {};
        name.ss_family = static_cast<sa_family_t>(family);
        fault::name("getpeername", 1, &name, length);
    }

    // The description; "(null)" for a null pointer.
    static std::string peer(int ttyno, int size = 64)
    {
        char buf[64] = "untouched";
        const char *result = vc_service_peer(ttyno, buf, size);
        if (result == nullptr) {
            return "(null)";
        }
        EXPECT_EQ(result, buf);
        return buf;
    }

    std::unique_ptr<vc_child> child_;
};

TEST_F(PeerTest, ipv4_sessions_are_described_by_protocol)
{
    const char *const expected[ALL_PROTOCOLS] = {
        "untouched",      "web(10.0.0.5)",  "web(10.0.0.5)", "vty2(10.0.0.5)",
        "vty2(10.0.0.5)", "vty2(10.0.0.5)", "untouched",     "ins(10.0.0.5)",
        "(null)",         "ins(10.0.0.5)",  "ins(10.0.0.5)", "untouched"};
    for (uint32_t protocol = 0; protocol < ALL_PROTOCOLS; protocol++) {
        session(260, protocol);
        peer_is_ipv4("10.0.0.5");
        EXPECT_EQ(peer(260), expected[protocol]) << protocol;
        fault::reset();
    }
    EXPECT_TRUE(messages().empty());
}

TEST_F(PeerTest, sessions_without_an_address_are_described_by_protocol)
{
    const char *const expected[ALL_PROTOCOLS] = {
        "untouched", "web", "web",    "vty2", "vty2", "vty2",
        "untouched", "ins", "(null)", "ins",  "ins",  "untouched"};
    for (uint32_t protocol = 0; protocol < ALL_PROTOCOLS; protocol++) {
        session(260, protocol);
        peer_is(AF_UNIX, sizeof(sa_family_t));
        EXPECT_EQ(peer(260), expected[protocol]) << protocol;
        fault::reset();
    }
}

TEST_F(PeerTest, an_ipv6_address_is_written_out)
{
    session(258, 5);
    peer_is_ipv6("2001:db8::7");
    EXPECT_EQ(peer(258), "vty0(2001:db8::7)");
}

TEST_F(PeerTest, the_longest_ipv6_address_fits)
{
    session(1585, 1);
    peer_is_ipv6("1111:2222:3333:4444:5555:6666:7777:8888");
    EXPECT_EQ(peer(1585), "web(1111:2222:3333:4444:5555:6666:7777:8888)");
}

TEST_F(PeerTest, the_longest_ipv4_address_fits)
{
    session(258, 4);
    peer_is_ipv4("192.168.100.200");
    EXPECT_EQ(peer(258), "vty0(192.168.100.200)");
}

TEST_F(PeerTest, a_peer_without_a_name_has_no_address)
{
    session(258, 4);
    // Nothing is written into the buffer then.
    peer_is(AF_INET, 0);
    EXPECT_EQ(peer(258), "vty0");
}

TEST_F(PeerTest, a_tipc_peer_has_empty_parentheses)
{
    session(263, 3);
    peer_is(30, 16);
    EXPECT_EQ(peer(263), "vty5()");
    session(263, 2);
    fault::reset();
    peer_is(30, 16);
    EXPECT_EQ(peer(263), "web()");
}

TEST_F(PeerTest, lines_below_258_count_backwards)
{
    session(0, 4);
    peer_is(AF_UNIX, 2);
    EXPECT_EQ(peer(0), "vty-258");
}

TEST_F(PeerTest, a_real_connection_shows_its_address)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    session(300, 10, ends[0]);
    EXPECT_EQ(peer(300), "ins");
    EXPECT_TRUE(messages().empty());
    close(ends[0]);
    close(ends[1]);
}

TEST_F(PeerTest, a_peer_that_cannot_be_asked_is_logged_and_left_out)
{
    fault_row("vc_service_peer", "getpeername", "ENOTCONN",
              "the label without an address",
              "vc: getpeername(%d) fail(%d), errno=%d %s\n", "");
    session(260, 4, 77);
    fault::fail("getpeername", 1, ENOTCONN);
    EXPECT_EQ(peer(260), "vty2");
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "vc: getpeername(77) fail(-1), errno=107 " +
                              std::string(strerror(ENOTCONN)) + "\n"}));
}

TEST_F(PeerTest, the_peer_is_asked_for_every_protocol)
{
    for (const uint32_t protocol : {0u, 6u, 8u, 11u}) {
        session(260, protocol);
        peer_is_ipv4("10.0.0.5");
        peer(260);
        EXPECT_EQ(fault::calls("getpeername"), 1) << protocol;
        fault::reset();
    }
}

TEST_F(PeerTest, what_does_not_fit_is_cut)
{
    session(260, 4);
    peer_is_ipv4("10.0.0.5");
    EXPECT_EQ(peer(260, 5), "vty2");
    fault::reset();
    peer_is_ipv4("10.0.0.5");
    EXPECT_EQ(peer(260, 1), "");
}

TEST_F(PeerTest, a_size_of_0_or_less_writes_nothing)
{
    session(260, 4);
    for (const int size : {0, -1, -2147483647 - 1}) {
        peer_is_ipv4("10.0.0.5");
        EXPECT_EQ(peer(260, size), "untouched") << size;
        fault::reset();
    }
}

TEST_F(PeerTest, a_number_that_is_no_line_has_no_peer)
{
    EXPECT_EQ(peer(-1), "(null)");
    EXPECT_EQ(peer(1586), "(null)");
    EXPECT_EQ(fault::calls("getpeername"), 0);
}

TEST_F(PeerTest, a_line_without_a_session_has_no_peer)
{
    EXPECT_EQ(peer(300), "(null)");
    EXPECT_EQ(fault::calls("getpeername"), 0);
}

TEST_F(PeerTest, a_null_buffer_gives_null)
{
    session(260, 4);
    EXPECT_EQ(vc_service_peer(260, nullptr, 64), nullptr);
    EXPECT_EQ(fault::calls("getpeername"), 0);
}
