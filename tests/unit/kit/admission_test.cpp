// Whom the limit per peer counts as one.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kit/admission.h"
#include "tests/support/fault.h"
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
