#include "programs/telnetd/options.h"

#include <gtest/gtest.h>

constexpr uid_t ROOT = 0;
constexpr uid_t SOMEBODY = 1000;

static telnetd_options whole()
{
    telnetd_options chosen;

    chosen.port = 2323;
    chosen.peers = {"127.0.0.1"};
    chosen.no_authentication = true;
    return chosen;
}

static void expect_objection(const telnetd_options &chosen, uid_t daemon,
                             const char *part)
{
    const std::string why = objection_to(chosen, daemon);

    EXPECT_NE(why.find(part), std::string::npos) << "'" << why << "'";
}

TEST(TelnetdOptions, a_user_may_offer_what_is_spelled_out)
{
    EXPECT_EQ(objection_to(whole(), SOMEBODY), "");
}

TEST(TelnetdOptions, root_gives_nobody_its_rights_unasked)
{
    telnetd_options chosen = whole();

    expect_objection(chosen, ROOT, "whoever may connect would be root");
    chosen.no_authentication = false;
    EXPECT_EQ(objection_to(chosen, ROOT), "");
    EXPECT_EQ(objection_to(chosen, SOMEBODY), "");
}

TEST(TelnetdOptions, what_follows_the_program_is_its_own)
{
    const char *words[] = {"telnetd", "--records", "--program",
                           "menu",    "--records", "-x"};
    telnetd_options chosen;

    optind = 1;
    parse_options(6, const_cast<char **>(words), chosen);
    EXPECT_TRUE(chosen.records);
    EXPECT_STREQ(chosen.network_user, "ttyline-net");
    ASSERT_EQ(chosen.program.size(), 3u);
    EXPECT_STREQ(chosen.program[0], "menu");
    EXPECT_STREQ(chosen.program[2], "-x");
}

TEST(TelnetdOptions, a_port_and_who_may_come_in_are_needed)
{
    telnetd_options chosen = whole();

    chosen.peers.clear();
    expect_objection(chosen, SOMEBODY, "--port needs --allow");
    chosen.any_peer = true;
    EXPECT_EQ(objection_to(chosen, SOMEBODY), "");
    chosen.families = 0;
    expect_objection(chosen, SOMEBODY, "leave --port nothing");
    chosen.port = 0;
    expect_objection(chosen, SOMEBODY, "--port is needed");
}
