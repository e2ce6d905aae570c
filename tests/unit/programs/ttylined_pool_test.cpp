#include "programs/ttylined/pool.h"

#include <gtest/gtest.h>

#include "tests/support/login_records.h"

static bool refuses(const char *text)
{
    line_pool pool;
    std::string error;

    pool_init(pool);
    return !pool_set_ranges(pool, text, error) && !error.empty();
}

TEST(TtylinedPool, refuses_ranges_that_cannot_carry_sessions)
{
    EXPECT_TRUE(refuses("6=257-300"));
    EXPECT_TRUE(refuses("6=1148-1149"));
    EXPECT_TRUE(refuses("6=1100-1500"));
    EXPECT_TRUE(refuses("6=1420-1430"));
    EXPECT_TRUE(refuses("6=1500-1586"));
    EXPECT_TRUE(refuses("6=300-299"));
}

TEST(TtylinedPool, refuses_text_that_is_no_pool)
{
    for (const char *text :
         {"", "6", "6=", "=258-300", "12=258-300", "-1=258-300", "6=258",
          "6=258-", "6=-300", "6=258-300,", "6=258-300,,301-302", "6=a-b",
          "6=258-300x", "6= 258-300", "6=258-99999999999"}) {
        EXPECT_TRUE(refuses(text)) << text;
    }
}

TEST(TtylinedPool, a_failed_range_changes_nothing)
{
    line_pool pool;
    std::string error;

    pool_init(pool);
    EXPECT_FALSE(pool_set_ranges(pool, "6=300-301,5-6", error));
    EXPECT_EQ(pool_take(pool, 1, accept_report(6, 7, 1)), 258);
}

TEST(TtylinedPool, accepts_the_outermost_lines)
{
    line_pool pool;
    std::string error;

    pool_init(pool);
    EXPECT_TRUE(pool_set_ranges(pool, "0=1585-1585,258-258", error)) << error;
    EXPECT_TRUE(pool_set_ranges(pool, "11=1148-1148,1421-1421", error));
    EXPECT_EQ(pool_take(pool, 1, accept_report(0, 7, 1)), 258);
    EXPECT_EQ(pool_take(pool, 1, accept_report(0, 7, 2)), 1585);
    EXPECT_EQ(pool_take(pool, 1, accept_report(0, 7, 3)), -1);
    EXPECT_EQ(pool_take(pool, 1, accept_report(11, 7, 4)), 1148);
    EXPECT_EQ(pool_take(pool, 1, accept_report(11, 7, 5)), 1421);
}

TEST(TtylinedPool, a_protocol_out_of_range_uses_every_line)
{
    line_pool pool;

    pool_init(pool);
    EXPECT_EQ(pool_take(pool, 1, accept_report(-3, 7, 1)), 258);
    EXPECT_EQ(pool_take(pool, 1, accept_report(99, 7, 2)), 259);
}

TEST(TtylinedPool, confirms_only_the_assignment_that_was_made)
{
    line_pool pool;
    tty_cmsg answer = accept_report(6, 7, 1);

    pool_init(pool);
    answer.ttyno = pool_take(pool, 1, answer);
    EXPECT_FALSE(pool_confirm(pool, 2, answer));
    tty_cmsg other = answer;
    other.accept_id = 2;
    EXPECT_FALSE(pool_confirm(pool, 1, other));
    for (int ttyno : {-1, 0, 259, 1585, 1586, 2147483647, -2147483647 - 1}) {
        other = answer;
        other.ttyno = ttyno;
        EXPECT_FALSE(pool_confirm(pool, 1, other)) << ttyno;
    }
    answer.pid = 4711;
    EXPECT_TRUE(pool_confirm(pool, 1, answer));
    EXPECT_EQ(pool_find(pool, 258)->session_pid, 4711);
    EXPECT_FALSE(pool_confirm(pool, 1, answer));
}

TEST(TtylinedPool, a_line_out_of_range_is_nobodys)
{
    line_pool pool;

    pool_init(pool);
    for (int ttyno : {-1, 1586, 2147483647, -2147483647 - 1}) {
        EXPECT_EQ(pool_find(pool, ttyno), nullptr);
        EXPECT_EQ(pool_clean(pool, 1, line_clean(ttyno, 0)),
                  clean_result::not_owner);
    }
}

TEST(TtylinedPool, drop_keeps_only_confirmed_sessions_when_asked)
{
    line_pool pool;
    tty_cmsg first = accept_report(6, 7, 1);

    pool_init(pool);
    first.ttyno = pool_take(pool, 1, first);
    pool_take(pool, 1, accept_report(6, 8, 2));
    pool_take(pool, 2, accept_report(6, 7, 1));
    ASSERT_TRUE(pool_confirm(pool, 1, first));
    EXPECT_EQ(pool_drop_client(pool, 1, true), 1U);
    EXPECT_EQ(pool_find(pool, 259)->state, line_state::unused);
    EXPECT_EQ(pool_hand_over(pool, 1, 3), 1U);
    EXPECT_EQ(pool_clean(pool, 1, line_clean(258, 1)), clean_result::not_owner);
    EXPECT_EQ(pool_clean(pool, 3, line_clean(258, 1)), clean_result::freed);
    EXPECT_EQ(pool_find(pool, 260)->client, 2U);
}

TEST(TtylinedPool, one_line_alone_is_taken_only_when_it_may_be_had)
{
    line_pool pool;
    std::string error;
    const tty_cmsg report = accept_report(6, 7, 1);

    pool_init(pool);
    ASSERT_TRUE(pool_set_ranges(pool, "6=300-301,400-400", error));
    for (int ttyno : {-1, 0, 257, 258, 299, 302, 399, 401, 1586, 2147483647}) {
        EXPECT_FALSE(pool_take_only(pool, 1, report, ttyno)) << ttyno;
    }
    EXPECT_TRUE(pool_take_only(pool, 1, report, 400));
    EXPECT_FALSE(pool_take_only(pool, 1, report, 400));
    EXPECT_EQ(pool_find(pool, 400)->assignment.ttyno, 400);
    EXPECT_EQ(pool_find(pool, 400)->state, line_state::assigned);
    EXPECT_FALSE(pool_take_only(pool, 1, accept_report(-1, 7, 2), 257));
    EXPECT_TRUE(pool_take_only(pool, 1, accept_report(-1, 7, 2), 258));
}

static bool nothing_known(const line_pool &pool, int ttyno)
{
    const line_facts &facts = pool_find(pool, ttyno)->facts;

    return !facts.logged_in && !facts.speed && !facts.session_timeout &&
           !facts.exec_timeout;
}

TEST(TtylinedPool, facts_belong_to_one_use_of_a_line)
{
    line_pool pool;

    pool_init(pool);
    for (int ttyno : {-1, 1586}) {
        EXPECT_EQ(pool_facts(pool, ttyno), nullptr);
    }
    *pool_facts(pool, 258) = {true, 1U, 2U, 3U};
    EXPECT_FALSE(nothing_known(pool, 258));
    EXPECT_EQ(pool_take(pool, 1, accept_report(6, 7, 1)), 258);
    EXPECT_TRUE(nothing_known(pool, 258));
    *pool_facts(pool, 258) = {true, {}, {}, {}};
    EXPECT_EQ(pool_clean(pool, 2, line_clean(258, 0)), clean_result::not_owner);
    EXPECT_FALSE(nothing_known(pool, 258));
    EXPECT_EQ(pool_clean(pool, 1, line_clean(258, 0)), clean_result::freed);
    EXPECT_TRUE(nothing_known(pool, 258));

    ASSERT_TRUE(pool_take_only(pool, 1, accept_report(6, 7, 2), 258));
    *pool_facts(pool, 258) = {false, {}, {}, 3U};
    pool_drop_client(pool, 1, false);
    EXPECT_TRUE(nothing_known(pool, 258));
}
