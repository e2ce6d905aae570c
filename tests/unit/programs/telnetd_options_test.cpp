#include "programs/telnetd/options.h"

#include <gtest/gtest.h>

constexpr uid_t ROOT = 0;
constexpr uid_t SOMEBODY = 1000;

static daemon_options whole()
{
    daemon_options chosen;

    chosen.port = 2323;
    chosen.peers = {"127.0.0.1"};
    chosen.no_authentication = true;
    return chosen;
}

static void expect_objection(const daemon_options &chosen, uid_t daemon,
                             const char *part)
{
    const std::string why = objection_to(chosen, daemon);

    EXPECT_NE(why.find(part), std::string::npos) << "'" << why << "'";
}

TEST(TelnetdOptions, a_user_may_offer_what_is_spelled_out)
{
    EXPECT_EQ(objection_to(whole(), SOMEBODY), "");
}

TEST(TelnetdOptions, root_may_offer_nothing)
{
    expect_objection(whole(), ROOT, "does not run as root");
}

TEST(TelnetdOptions, a_shell_for_whoever_connects_has_to_be_spelled_out)
{
    daemon_options chosen = whole();

    chosen.no_authentication = false;
    expect_objection(chosen, SOMEBODY, "--no-authentication has to be typed");
}

TEST(TelnetdOptions, a_port_and_who_may_come_in_are_needed)
{
    daemon_options chosen = whole();

    chosen.peers.clear();
    expect_objection(chosen, SOMEBODY, "--port needs --allow");
    chosen.any_peer = true;
    EXPECT_EQ(objection_to(chosen, SOMEBODY), "");
    chosen.families = 0;
    expect_objection(chosen, SOMEBODY, "leave --port nothing");
    chosen.port = 0;
    expect_objection(chosen, SOMEBODY, "--port is needed");
}
