#include "programs/shared/offer.h"

#include <cstdlib>

#include <gtest/gtest.h>

TEST(Offer, without_a_program_is_the_login_shell_of_whoever_runs_the_daemon)
{
    daemon_options chosen;

    setenv("SHELL", "/some/where/shell", 1);
    EXPECT_STREQ(choose_program(chosen, nullptr), "-shell");
    ASSERT_EQ(chosen.program.size(), 2u);
    EXPECT_STREQ(chosen.program[0], "/some/where/shell");
    EXPECT_EQ(chosen.program[1], nullptr);
}

TEST(Offer, for_another_user_is_the_shell_of_that_one)
{
    daemon_options chosen;

    setenv("SHELL", "/some/where/shell", 1);
    // Known on every machine, whatever its shell is.
    EXPECT_EQ(choose_program(chosen, "root")[0], '-');
    EXPECT_STRNE(chosen.program[0], "/some/where/shell");
    EXPECT_EQ(chosen.program[0][0], '/');
}

TEST(Offer, of_a_program_is_what_was_named)
{
    daemon_options chosen;

    chosen.program = {"top", "-b"};
    EXPECT_EQ(choose_program(chosen, nullptr), nullptr);
    ASSERT_EQ(chosen.program.size(), 3u);
    EXPECT_STREQ(chosen.program[1], "-b");
    EXPECT_EQ(chosen.program[2], nullptr);
}

TEST(Offer, has_lists_that_end_and_none_that_nobody_has_given)
{
    std::vector<const char *> list;

    EXPECT_EQ(kit_list(list), nullptr);
    list = {"a"};
    const char *const *ended = kit_list(list);
    EXPECT_STREQ(ended[0], "a");
    EXPECT_EQ(ended[1], nullptr);
}

TEST(Offer, lets_in_who_was_listed_or_everybody)
{
    daemon_options chosen;

    chosen.peers = {"::1"};
    chosen.most_sessions = 5;
    chosen.most_per_peer = 2;
    const kit_admission listed = admission_of(chosen);
    EXPECT_EQ(listed.size, sizeof listed);
    EXPECT_STREQ(listed.peers[0], "::1");
    EXPECT_EQ(listed.most_sessions, 5u);
    EXPECT_EQ(listed.most_per_peer, 2u);
    chosen.any_peer = true;
    EXPECT_EQ(admission_of(chosen).peers, nullptr);
}

TEST(Offer, has_what_its_services_have_in_common)
{
    daemon_options chosen;

    chosen.idle_seconds = 3;
    chosen.environment = {"A=b"};
    const kit_admission rules = admission_of(chosen);
    const kit_service service = service_of(chosen, &rules);
    EXPECT_EQ(service.size, sizeof service);
    EXPECT_EQ(service.idle_ms, 3000u);
    EXPECT_STREQ(service.environment[0], "A=b");
    EXPECT_STREQ(service.term, "vt100");
    EXPECT_EQ(service.admission, &rules);
}

TEST(OfferDeathTest, that_the_kit_does_not_take_ends_the_process)
{
    kit_service service = {};

    EXPECT_EXIT(offer(service), testing::ExitedWithCode(2),
                "is of another version");
}
