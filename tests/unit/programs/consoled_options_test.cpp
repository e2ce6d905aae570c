#include "programs/consoled/options.h"

#include <gtest/gtest.h>

constexpr uid_t ROOT = 0;
constexpr uid_t SOMEBODY = 1000;

static options on_path()
{
    options chosen;

    chosen.path = "/run/console";
    return chosen;
}

static options on_port()
{
    options chosen;

    chosen.port = 2323;
    chosen.peers = {"127.0.0.1"};
    return chosen;
}

static bool objects(const options &chosen, uid_t daemon, const char *part)
{
    const std::string why = objection_to(chosen, daemon);

    EXPECT_NE(why.find(part), std::string::npos) << "'" << why << "'";
    return !why.empty();
}

TEST(ConsoledOptions, root_gives_nobody_its_shell_unasked)
{
    for (options chosen : {on_path(), on_port()}) {
        EXPECT_EQ(objection_to(chosen, SOMEBODY), "");
        EXPECT_TRUE(objects(chosen, ROOT, "would be root"));
        // Another program is no reason: one leads to the next.
        chosen.program = {"/bin/cat"};
        EXPECT_TRUE(objects(chosen, ROOT, "would be root"));
    }
}

TEST(ConsoledOptions, root_may_offer_a_login_a_user_or_what_it_spells_out)
{
    for (const options &plain : {on_path(), on_port()}) {
        options login = plain;
        options user = plain;
        options spelled = plain;
        login.login = true;
        user.user = "nobody";
        spelled.no_authentication = true;
        for (const options &chosen : {login, user, spelled}) {
            EXPECT_EQ(objection_to(chosen, ROOT), "");
        }
    }
}

TEST(ConsoledOptions, root_by_another_option_is_root_all_the_same)
{
    options chosen = on_path();

    chosen.user = "root";
    EXPECT_TRUE(objects(chosen, ROOT, "would be root"));
    chosen.no_authentication = true;
    EXPECT_EQ(objection_to(chosen, ROOT), "");
}

TEST(ConsoledOptions, the_line_console_of_root_is_for_root_alone)
{
    options chosen;

    chosen.inpath = "/run/inpath";
    EXPECT_EQ(objection_to(chosen, ROOT), "");
    chosen.groups = {"operators"};
    EXPECT_EQ(objection_to(chosen, SOMEBODY), "");
    EXPECT_TRUE(objects(chosen, ROOT, "shell of root's"));
    // The users of the path are asked who they are, those of the console not.
    chosen.path = "/run/console";
    chosen.login = true;
    EXPECT_TRUE(objects(chosen, ROOT, "shell of root's"));
    chosen.login = false;
    chosen.no_authentication = true;
    EXPECT_EQ(objection_to(chosen, ROOT), "");
}

TEST(ConsoledOptions, a_port_says_who_may_come_in)
{
    options chosen = on_port();

    chosen.peers.clear();
    chosen.no_authentication = true;
    for (const uid_t daemon : {ROOT, SOMEBODY}) {
        EXPECT_TRUE(objects(chosen, daemon, "--port needs --allow"));
    }
    chosen.any_peer = true;
    EXPECT_EQ(objection_to(chosen, ROOT), "");
}

TEST(ConsoledOptions, a_login_is_a_session_of_its_own_kind)
{
    options chosen = on_path();

    chosen.login = true;
    EXPECT_TRUE(objects(chosen, SOMEBODY, "needs root"));
    chosen.user = "nobody";
    EXPECT_TRUE(objects(chosen, ROOT, "neither with --user"));
    chosen.user = nullptr;
    chosen.program = {"/bin/sh"};
    EXPECT_TRUE(objects(chosen, ROOT, "nor with a program"));
}

TEST(ConsoledOptions, a_user_exists)
{
    options chosen = on_path();

    chosen.user = "no-such-user-here";
    EXPECT_TRUE(objects(chosen, SOMEBODY, "no such user: no-such-user-here"));
}

TEST(ConsoledOptions, an_offer_has_a_place)
{
    options chosen;

    EXPECT_TRUE(objects(chosen, SOMEBODY, "none of --port"));
    chosen = on_port();
    chosen.families = 0;
    EXPECT_TRUE(objects(chosen, SOMEBODY, "leave --port nothing"));
}
