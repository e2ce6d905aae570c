// Admission rules: what their text means.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/un.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/service.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"

// Lists live as long as the process of the test, and what holds them too.
static kit_nets list_of(std::vector<const char *> texts)
{
    kit_admission admission = {};
    admission.size = sizeof admission;

    texts.push_back(nullptr);
    admission.peers = texts.data();
    static auto &all = *new std::vector<kit_rules *>;
    all.push_back(kit_rules_read(&admission));
    EXPECT_NE(all.back(), nullptr) << kit_error();
    return all.back() != nullptr ? all.back()->peers : kit_nets{};
}

static bool permits(const kit_nets &list, const char *peer)
{
    sockaddr_storage storage = {};
    sockaddr_in ipv4 = {};
    sockaddr_in6 ipv6 = {};

    if (inet_pton(AF_INET, peer, &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        memcpy(&storage, &ipv4, sizeof ipv4);
    } else {
        EXPECT_EQ(inet_pton(AF_INET6, peer, &ipv6.sin6_addr), 1) << peer;
        ipv6.sin6_family = AF_INET6;
        memcpy(&storage, &ipv6, sizeof ipv6);
    }
    return kit_nets_have(&list, reinterpret_cast<sockaddr *>(&storage));
}

TEST(KitRules, absent_list_lets_everybody_in_and_an_empty_one_nobody)
{
    kit_nets absent = {};
    EXPECT_TRUE(permits(absent, "192.0.2.1"));
    EXPECT_TRUE(permits(absent, "2001:db8::1"));
    EXPECT_FALSE(permits(list_of({}), "192.0.2.1"));
    EXPECT_FALSE(permits(list_of({}), "2001:db8::1"));
}

TEST(KitRules, address_alone_means_this_address)
{
    auto list = list_of({"192.0.2.1", "2001:db8::1"});
    EXPECT_TRUE(permits(list, "192.0.2.1"));
    EXPECT_FALSE(permits(list, "192.0.2.2"));
    EXPECT_FALSE(permits(list, "192.0.2.0"));
    EXPECT_TRUE(permits(list, "2001:db8::1"));
    EXPECT_FALSE(permits(list, "2001:db8::2"));
}

TEST(KitRules, compares_only_the_bits_of_the_prefix)
{
    auto list = list_of({"192.0.2.129/25"});
    EXPECT_TRUE(permits(list, "192.0.2.128"));
    EXPECT_TRUE(permits(list, "192.0.2.255"));
    EXPECT_FALSE(permits(list, "192.0.2.127"));
    EXPECT_FALSE(permits(list, "192.0.3.129"));
    list = list_of({"2001:db8:1:2::/63"});
    EXPECT_TRUE(permits(list, "2001:db8:1:3::9"));
    EXPECT_FALSE(permits(list, "2001:db8:1:4::"));
}

TEST(KitRules, zero_bits_cover_the_family_and_not_the_other)
{
    EXPECT_TRUE(permits(list_of({"0.0.0.0/0"}), "198.51.100.7"));
    EXPECT_FALSE(permits(list_of({"0.0.0.0/0"}), "2001:db8::1"));
    EXPECT_TRUE(permits(list_of({"::/0"}), "2001:db8::1"));
}

TEST(KitRules, mapped_peer_is_its_ipv4_address)
{
    auto list = list_of({"192.0.2.0/24"});
    EXPECT_TRUE(permits(list, "::ffff:192.0.2.9"));
    EXPECT_FALSE(permits(list, "::ffff:192.0.3.9"));
    EXPECT_FALSE(permits(list, "::192.0.2.9"));
}

TEST(KitRules, other_families_are_not_on_it)
{
    sockaddr_un peer = {};
    peer.sun_family = AF_UNIX;
    auto *address = reinterpret_cast<sockaddr *>(&peer);
    const kit_nets all = list_of({"::/0"});
    EXPECT_FALSE(kit_nets_have(&all, address));
}

TEST(KitRules, what_is_no_address_or_prefix_is_refused)
{
    for (const char *text :
         {"", "/", "localhost", "192.0.2", "192.0.2.1/", "192.0.2.1/33",
          "192.0.2.1/-1", "192.0.2.1/+8", "192.0.2.1/ 8", "192.0.2.1/8x",
          "192.0.2.1/4294967304", "192.0.2.1/18446744073709551624",
          "2001:db8::/129", "2001:db8::g", "192.0.2.1/8/8",
          "1111:2222:3333:4444:5555:6666:7777:8888:9999:aaaa:bbbb:cccc"}) {
        const char *peers[] = {text, nullptr};
        kit_admission admission = {};
        admission.size = sizeof admission;
        admission.peers = peers;
        EXPECT_EQ(kit_rules_read(&admission), nullptr) << text;
        EXPECT_EQ(std::string(kit_error()),
                  std::string("'") + text + "' is no address or address/bits");
    }
}

TEST(KitRules, users_and_groups_are_names_or_numbers)
{
    const char *users[] = {"root", "4711", nullptr};
    const char *groups[] = {"root", "42", nullptr};
    kit_admission admission = {};
    admission.size = sizeof admission;
    admission.users = users;
    admission.groups = groups;
    kit_rules *rules = kit_rules_read(&admission);
    ASSERT_NE(rules, nullptr) << kit_error();
    EXPECT_TRUE(rules->by_identity);
    EXPECT_TRUE(kit_ids_have(&rules->users, 0));
    EXPECT_TRUE(kit_ids_have(&rules->users, 4711));
    EXPECT_FALSE(kit_ids_have(&rules->users, 42));
    EXPECT_TRUE(kit_ids_have(&rules->groups, 42));
    kit_rules_free(rules);
}

TEST(KitRules, unknown_group_is_refused)
{
    const char *groups[] = {"no-such-group-here", nullptr};
    kit_admission admission = {};
    admission.size = sizeof admission;
    admission.groups = groups;
    EXPECT_EQ(kit_rules_read(&admission), nullptr);
    EXPECT_STREQ(kit_error(), "there is no group 'no-such-group-here'");
}

TEST(KitRules, record_of_another_version_is_refused)
{
    kit_admission admission = {};
    admission.size = sizeof admission - 1;
    EXPECT_EQ(kit_rules_read(&admission), nullptr);
    EXPECT_NE(std::string(kit_error()).find("is of another version"),
              std::string::npos)
        << kit_error();
}

class KitRulesFail : public testing::Test
{
  protected:
    void SetUp() override
    {
        fault::reset();
        admission.size = sizeof admission;
        admission.peers = peers;
        admission.locals = locals;
        admission.users = names;
        admission.groups = names;
    }

    void TearDown() override
    {
        fault::reset();
    }

    const char *peers[2] = {"192.0.2.1", nullptr};
    const char *locals[2] = {"192.0.2.2", nullptr};
    const char *names[2] = {"root", nullptr};
    kit_admission admission = {};
};

// A record and its four lists.
TEST_F(KitRulesFail, rules_without_memory_are_none)
{
    fault_row("kit_rules_read", "calloc", "ENOMEM", "a null pointer", "", "");
    for (int nth = 1; nth <= 5; nth++) {
        fault::reset();
        fault::fail("calloc", nth, ENOMEM);
        EXPECT_EQ(kit_rules_read(&admission), nullptr) << nth;
        EXPECT_STREQ(kit_error(), "out of memory");
    }
    kit_rules *rules = kit_rules_read(&admission);
    ASSERT_NE(rules, nullptr);
    kit_rules_free(rules);
    kit_rules_free(nullptr);
}

TEST_F(KitRulesFail, name_that_cannot_be_looked_up_is_unknown)
{
    fault_row("kit_rules_read", "getpwnam", "EIO", "a null pointer", "", "");
    fault_row("kit_rules_read", "getgrnam", "EIO", "a null pointer", "", "");
    fault::fail("getpwnam", 1, EIO);
    EXPECT_EQ(kit_rules_read(&admission), nullptr);
    EXPECT_STREQ(kit_error(), "there is no user 'root'");
    fault::fail("getgrnam", 1, EIO);
    EXPECT_EQ(kit_rules_read(&admission), nullptr);
    EXPECT_STREQ(kit_error(), "there is no group 'root'");
}

TEST_F(KitRulesFail, local_address_is_an_address_too)
{
    locals[0] = "here";
    EXPECT_EQ(kit_rules_read(&admission), nullptr);
    EXPECT_STREQ(kit_error(), "'here' is no address or address/bits");
}
