// Which services are at one place, and which is reached there.
#include "kit/service.h"

#include <netinet/in.h>
#include <string.h>
#include <sys/un.h>

#include <string>

#include <gtest/gtest.h>

static int nothing(const kit_session *, void *)
{
    return 0;
}

static kit_service service_of(uint32_t protocol, int port, uint32_t families,
                              const char *path)
{
    kit_service service = {};

    service.size = sizeof service;
    service.protocol = protocol;
    service.port = port;
    service.families = families;
    service.path = path;
    service.function = nothing;
    return service;
}

// What is offered stays.
static const kit_service FOUR = service_of(6, 4001, KIT_IPV4, nullptr);
static const kit_service SIX = service_of(6, 4001, KIT_IPV6, nullptr);
static const kit_service BOTH = service_of(5, 4002, 0, nullptr);
static const kit_service PATH = service_of(7, 0, 0, "/nowhere/console");
static const kit_service OTHER_PATH = service_of(7, 0, 0, "/nowhere/other");

class KitServices : public testing::Test
{
  protected:
    void SetUp() override
    {
        for (const kit_service *one :
             {&FOUR, &SIX, &BOTH, &PATH, &OTHER_PATH}) {
            ASSERT_EQ(kit_offer(one), 0) << kit_error();
        }
    }

    static const kit_service *at_port(sa_family_t family, uint16_t port)
    {
        sockaddr_storage local = {};
        // The port is at one place in both.
        sockaddr_in inet = {};
        inet.sin_family = family;
        inet.sin_port = htons(port);
        memcpy(&local, &inet, sizeof inet);
        const kit_node *node = kit_node_at(&local);
        return node != nullptr ? node->service : nullptr;
    }

    static const kit_service *at_path(const std::string &path)
    {
        sockaddr_storage local = {};
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path);
        memcpy(&local, &address, sizeof address);
        const kit_node *node = kit_node_at(&local);
        return node != nullptr ? node->service : nullptr;
    }
};

TEST_F(KitServices, two_may_share_a_port_but_no_family_of_it)
{
    for (const kit_service &wrong : {service_of(8, 4001, KIT_IPV4, nullptr),
                                     service_of(8, 4001, 0, nullptr),
                                     service_of(8, 4002, KIT_IPV6, nullptr),
                                     service_of(8, 0, 0, "/nowhere/other")}) {
        EXPECT_EQ(kit_offer(&wrong), -1);
        EXPECT_STREQ(kit_error(), "a service is offered there already");
    }
}

TEST_F(KitServices, is_found_by_family_and_port)
{
    EXPECT_EQ(at_port(AF_INET, 4001), &FOUR);
    EXPECT_EQ(at_port(AF_INET6, 4001), &SIX);
    EXPECT_EQ(at_port(AF_INET, 4002), &BOTH);
    EXPECT_EQ(at_port(AF_INET6, 4002), &BOTH);
    EXPECT_EQ(at_port(AF_INET, 4003), nullptr);
    // A path has no port, not even 0.
    EXPECT_EQ(at_port(AF_INET, 0), nullptr);
    EXPECT_EQ(at_port(AF_NETLINK, 4001), nullptr);
}

TEST_F(KitServices, is_found_by_its_whole_path)
{
    EXPECT_EQ(at_path("/nowhere/console"), &PATH);
    EXPECT_EQ(at_path("/nowhere/other"), &OTHER_PATH);
    EXPECT_EQ(at_path("/nowhere"), nullptr);
    EXPECT_EQ(at_path("/nowhere/console2"), nullptr);
    EXPECT_EQ(at_path(std::string(108, 'p')), nullptr);
}

TEST_F(KitServices, moves_with_its_protocol_and_port)
{
    kit_service_moved(6, 4001, 4009);
    EXPECT_EQ(at_port(AF_INET, 4009), &FOUR);
    EXPECT_EQ(at_port(AF_INET6, 4009), &SIX);
    EXPECT_EQ(at_port(AF_INET, 4001), nullptr);
    // Neither another protocol's nor another port's, nor a path.
    kit_service_moved(6, 4002, 4010);
    EXPECT_EQ(at_port(AF_INET, 4002), &BOTH);
    kit_service_moved(7, 0, 4011);
    EXPECT_EQ(at_port(AF_INET, 4011), nullptr);
    EXPECT_EQ(at_path("/nowhere/console"), &PATH);
}

TEST_F(KitServices, stops_and_opens_with_its_protocol)
{
    EXPECT_FALSE(kit_service_stopped(6, true));
    EXPECT_TRUE(kit_node_of(&FOUR)->stopped);
    EXPECT_TRUE(kit_node_of(&SIX)->stopped);
    EXPECT_FALSE(kit_node_of(&BOTH)->stopped);
    EXPECT_TRUE(kit_service_stopped(6, true));
    EXPECT_TRUE(kit_service_stopped(6, false));
    EXPECT_FALSE(kit_service_stopped(6, false));
    EXPECT_FALSE(kit_service_stopped(11, true));
}

TEST_F(KitServices, has_the_name_of_its_protocol_when_it_has_none)
{
    char buffer[32];
    kit_service named = PATH;
    named.name = "console";
    EXPECT_STREQ(kit_service_name(&named, buffer, sizeof buffer), "console");
    EXPECT_STREQ(kit_service_name(&PATH, buffer, sizeof buffer), "protocol-7");
}
