// Whom the limit per peer counts as one.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "kit/admission.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"

class KitPeer : public support::nothing_left
{
  protected:
    void SetUp() override
    {
        nothing_left::SetUp();
        socket_ = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(socket_, 0);
    }

    void TearDown() override
    {
        close(socket_);
        fault::reset();
        nothing_left::TearDown();
    }

    kit_peer_key key_of(const char *address, uint32_t scope)
    {
        sockaddr_in6 peer = {};
        peer.sin6_family = AF_INET6;
        peer.sin6_scope_id = scope;
        EXPECT_EQ(inet_pton(AF_INET6, address, &peer.sin6_addr), 1);
        fault::reset();
        fault::name("getpeername", 1, &peer, sizeof peer);
        kit_entry *entry = kit_entry_make(258);
        kit_admission_describe(entry, socket_);
        EXPECT_STREQ(entry->peer, address);
        const kit_peer_key key = entry->key;
        kit_entry_free(entry);
        return key;
    }

    bool same(const kit_peer_key &one, const kit_peer_key &other)
    {
        return memcmp(&one, &other, sizeof one) == 0;
    }

    int socket_ = -1;
};

TEST_F(KitPeer, addresses_of_a_network_of_64_bits_are_one)
{
    const kit_peer_key first = key_of("2001:db8:0:1::1", 0);
    EXPECT_TRUE(same(first, key_of("2001:db8:0:1:ffff::2", 0)));
    EXPECT_FALSE(same(first, key_of("2001:db8:0:2::1", 0)));
}

// All of them are in one network, on every link.
TEST_F(KitPeer, link_local_addresses_are_told_apart_by_address_and_link)
{
    const kit_peer_key first = key_of("fe80::1", 2);
    EXPECT_TRUE(same(first, key_of("fe80::1", 2)));
    EXPECT_FALSE(same(first, key_of("fe80::2", 2)));
    EXPECT_FALSE(same(first, key_of("fe80::1", 3)));
    EXPECT_FALSE(same(first, key_of("febf::1", 2)));
}

// ---- A unix peer, and who is refused. ----

static int nothing(const kit_session *, void *)
{
    return 0;
}

class KitRefusal : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        service.size = sizeof service;
        service.protocol = 6;
        service.port = 4000;
        service.function = nothing;
        service.admission = &admission;
        admission.size = sizeof admission;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        REPLACE_CALL(sendto, log_line);
        fault::replacing(true);
        g_log.clear();
    }

    void TearDown() override
    {
        fault::replacing(false);
        close(ends[0]);
        close(ends[1]);
        runtime_test::TearDown();
    }

    void offer()
    {
        static kit_service kept;
        kept = service;
        ASSERT_EQ(kit_offer(&kept), 0) << kit_error();
    }

    static ssize_t log_line(int, const void *text, size_t size, int,
                            const sockaddr *, socklen_t)
    {
        g_log.append(static_cast<const char *>(text), size);
        return static_cast<ssize_t>(size);
    }

    static sockaddr_in ipv4(const char *address, uint16_t port)
    {
        sockaddr_in made = {};
        made.sin_family = AF_INET;
        made.sin_port = port;
        EXPECT_EQ(inet_pton(AF_INET, address, &made.sin_addr), 1);
        return made;
    }

    static sockaddr_in6 ipv6(const char *address, uint16_t port)
    {
        sockaddr_in6 made = {};
        made.sin6_family = AF_INET6;
        made.sin6_port = port;
        EXPECT_EQ(inet_pton(AF_INET6, address, &made.sin6_addr), 1);
        return made;
    }

    template <typename A>
    static bool permits(A local, A peer)
    {
        return kit_admission_permit(reinterpret_cast<sockaddr *>(&local),
                                    reinterpret_cast<sockaddr *>(&peer));
    }

    static std::string g_log;
    kit_service service = {};
    kit_admission admission = {};
    int ends[2] = {-1, -1};
};

std::string KitRefusal::g_log;

TEST_F(KitRefusal, peer_on_no_list_is_refused_and_logged)
{
    const char *peers[] = {"192.0.2.1", "2001:db8::1", nullptr};
    const char *locals[] = {"198.51.100.1", "2001:db8::2", nullptr};
    admission.peers = peers;
    admission.locals = locals;
    offer();
    const sockaddr_in here = ipv4("198.51.100.1", 4000);
    const sockaddr_in6 here6 = ipv6("2001:db8::2", 4000);
    EXPECT_TRUE(permits(here, ipv4("192.0.2.1", 7)));
    EXPECT_TRUE(permits(here6, ipv6("2001:db8::1", 7)));
    EXPECT_EQ(g_log, "");
    EXPECT_FALSE(permits(here, ipv4("192.0.2.2", 7)));
    EXPECT_NE(g_log.find("refused service=protocol-6 peer=192.0.2.2 "
                         "reason=peer%20address"),
              std::string::npos)
        << g_log;
    EXPECT_FALSE(permits(here6, ipv6("2001:db8::3", 7)));
    EXPECT_NE(g_log.find("peer=2001:db8::3 reason=peer%20address"),
              std::string::npos)
        << g_log;
    EXPECT_FALSE(permits(ipv4("198.51.100.2", 4000), ipv4("192.0.2.1", 7)));
    EXPECT_NE(g_log.find("peer=192.0.2.1 reason=local%20address"),
              std::string::npos)
        << g_log;
}

TEST_F(KitRefusal, port_of_no_service_lets_nobody_in)
{
    service.admission = nullptr;
    offer();
    EXPECT_TRUE(permits(ipv4("127.0.0.1", 4000), ipv4("192.0.2.1", 7)));
    EXPECT_FALSE(permits(ipv4("127.0.0.1", 4001), ipv4("192.0.2.1", 7)));
    EXPECT_EQ(g_log, "");
}

// Whose bytes the codec would have to translate.
TEST_F(KitRefusal, client_of_a_codec_is_refused_without_a_word)
{
    kit_codec codec = {};
    codec.size = sizeof codec;
    offer();
    kit_entry *entry = kit_entry_make(258);
    kit_node node = {};
    node.service = &service;
    entry->node = &node;
    entry->session.service = &service;
    service.codec = &codec;
    kit_admission_refuse(entry, ends[0], "no");
    char text[64];
    EXPECT_EQ(recv(ends[1], text, sizeof text, MSG_DONTWAIT), -1);
    // Unless a line of text is one there too.
    codec.plain_text = 1;
    kit_admission_refuse(entry, ends[0], "no");
    EXPECT_EQ(recv(ends[1], text, sizeof text, MSG_DONTWAIT), 13);
    EXPECT_EQ(std::string(text, 13), "ttyline: no\r\n");
    kit_entry_free(entry);
}

// However much it has said; nobody waits for the rest.
TEST_F(KitRefusal, client_that_talks_much_is_told_all_the_same)
{
    fault_row("kit_admission_refuse", "send", "EAGAIN", "nothing", "",
              "the client is not told");
    kit_entry *entry = kit_entry_make(258);
    kit_node node = {};
    node.service = &service;
    entry->node = &node;
    entry->session.service = &service;
    const std::string much(20000, 'm');
    ASSERT_EQ(send(ends[1], much.data(), much.size(), MSG_DONTWAIT), 20000);
    kit_admission_refuse(entry, ends[0], "no\nmore");
    char text[64];
    EXPECT_EQ(recv(ends[1], text, sizeof text, MSG_DONTWAIT), 13);
    EXPECT_EQ(std::string(text, 13), "ttyline: no\r\n");
    std::string rest(20000, '\0');
    EXPECT_EQ(recv(ends[0], rest.data(), rest.size(), MSG_DONTWAIT),
              20000 - 16 * 512);
    fault::fail("send", 1, EAGAIN);
    kit_admission_refuse(entry, ends[0], "no");
    EXPECT_EQ(recv(ends[1], text, sizeof text, MSG_DONTWAIT), -1);
    kit_entry_free(entry);
}

TEST_F(KitRefusal, peer_that_the_kernel_does_not_name_is_unknown)
{
    fault_row("kit_admission_describe", "getsockopt", "EINVAL", "\"unknown\"",
              "", "the session has no user and group");
    fault_row("kit_admission_describe", "getpeername", "ENOTCONN", "0.0.0.0",
              "", "");
    kit_entry *entry = kit_entry_make(258);
    fault::fail("getsockopt", 1, EINVAL, 1, fault::only_what(SO_PEERCRED));
    kit_admission_describe(entry, ends[0]);
    EXPECT_STREQ(entry->peer, "unknown");
    EXPECT_EQ(entry->session.peer_uid, KIT_NO_ID);
    EXPECT_EQ(entry->session.peer_gid, KIT_NO_ID);
    kit_entry_free(entry);

    entry = kit_entry_make(258);
    fault::reset();
    fault::fail("getsockopt", 1, ERANGE, 1, fault::only_what(SO_PEERGROUPS));
    kit_admission_describe(entry, ends[0]);
    EXPECT_EQ(entry->peer, "uid " + std::to_string(geteuid()));
    EXPECT_EQ(entry->session.peer_gid, getegid());
    EXPECT_EQ(entry->group_count, 0u);
    kit_entry_free(entry);

    entry = kit_entry_make(258);
    fault::reset();
    sockaddr_in local = ipv4("127.0.0.1", htons(4000));
    fault::name("getsockname", 1, &local, sizeof local);
    fault::fail("getpeername", 1, ENOTCONN);
    kit_admission_describe(entry, ends[0]);
    EXPECT_STREQ(entry->peer, "0.0.0.0");
    kit_entry_free(entry);
}

TEST_F(KitRefusal, socket_of_another_family_has_no_service)
{
    kit_entry *entry = kit_entry_make(258);
    sockaddr_storage local = {};
    local.ss_family = AF_NETLINK;
    fault::name("getsockname", 1, &local, sizeof local);
    kit_admission_describe(entry, ends[0]);
    EXPECT_STREQ(entry->peer, "unknown");
    EXPECT_EQ(entry->node, nullptr);
    EXPECT_EQ(entry->session.service, nullptr);
    kit_entry_free(entry);
}
