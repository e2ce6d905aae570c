#include "programs/ttylined/assign.h"

#include <ctime>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "programs/ttylined/clock.h"
#include "tests/support/login_records.h"

// Two clients, the other ends of which the test has.
class Assign : public testing::Test
{
  protected:
    void SetUp() override
    {
        pool_init(lines.pool);
        for (unsigned number : {1U, 2U}) {
            int ends[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends),
                      0);
            clients[number].fd = ends[0];
            clients[number].number = number;
            peers[number] = ends[1];
        }
    }

    void TearDown() override
    {
        for (const auto &[number, cli] : clients) {
            close(cli.fd);
        }
        for (const auto &[number, fd] : peers) {
            close(fd);
        }
    }

    void report(unsigned number, int protocol, int sockfd)
    {
        assign_report(lines, clients, clients[number],
                      accept_report(protocol, sockfd, sockfd));
    }

    // The line that answers the client's report; -1000 when none does.
    int line_for(unsigned number, int sockfd)
    {
        tty_cmsg answer = {};

        if (recv(peers[number], &answer, sizeof answer, 0) != sizeof answer ||
            answer.vc_flag != VC_FLAG_CLIENT_ALLOC || answer.sockfd != sockfd) {
            return -1000;
        }
        return answer.ttyno;
    }

    assignments lines;
    client_table clients;
    std::map<unsigned, int> peers;
};

TEST_F(Assign, answers_at_once_while_nothing_is_held)
{
    report(1, 6, 7);
    report(2, 6, 7);
    EXPECT_EQ(line_for(1, 7), 258);
    EXPECT_EQ(line_for(2, 7), 259);
    EXPECT_TRUE(lines.waiting.empty());
}

TEST_F(Assign, says_no_by_a_line_that_there_is_not)
{
    std::string error;
    ASSERT_TRUE(pool_set_ranges(lines.pool, "6=300-300", error));
    report(1, 6, 7);
    report(1, 6, 8);
    EXPECT_EQ(line_for(1, 7), 300);
    EXPECT_EQ(line_for(1, 8), -1);
}

TEST_F(Assign, a_hold_lets_reports_wait_in_their_order)
{
    hold_begin(lines.hold, TTY_LINES, 0);
    report(2, 6, 7);
    report(1, 6, 8);
    EXPECT_EQ(line_for(2, 7), -1000);
    EXPECT_TRUE(hold_end(lines.hold));
    assign_waiting(lines, clients);
    EXPECT_EQ(line_for(2, 7), 258);
    EXPECT_EQ(line_for(1, 8), 259);
    EXPECT_FALSE(hold_end(lines.hold));
}

TEST_F(Assign, those_that_wait_come_before_a_new_report)
{
    hold_begin(lines.hold, TTY_LINES, 0);
    report(1, 6, 7);
    hold_end(lines.hold);
    report(2, 6, 8);
    EXPECT_EQ(line_for(1, 7), 258);
    EXPECT_EQ(line_for(2, 8), 259);
}

TEST_F(Assign, the_excepted_line_goes_to_whom_it_may_go)
{
    std::string error;
    ASSERT_TRUE(pool_set_ranges(lines.pool, "7=400-410", error));
    hold_begin(lines.hold, 258, 0);
    report(1, 7, 7);
    report(2, 6, 8);
    EXPECT_EQ(line_for(1, 7), -1000);
    EXPECT_EQ(line_for(2, 8), 258);
    EXPECT_EQ(lines.waiting.size(), 1U);
}

TEST_F(Assign, a_client_that_has_gone_waits_no_longer)
{
    hold_begin(lines.hold, TTY_LINES, 0);
    report(1, 6, 7);
    report(2, 6, 8);
    clients[2].doomed = true;
    assign_waiting(lines, clients);
    EXPECT_EQ(lines.waiting.size(), 1U);
    close(clients[1].fd);
    clients.erase(1);
    assign_waiting(lines, clients);
    EXPECT_TRUE(lines.waiting.empty());
    hold_end(lines.hold);
    EXPECT_EQ(pool_find(lines.pool, 258)->state, line_state::unused);
}

TEST_F(Assign, a_hold_ends_with_its_time)
{
    hold_begin(lines.hold, TTY_LINES, 1);
    EXPECT_GT(lines.hold.until, monotonic_ms());
    report(1, 6, 7);
    EXPECT_TRUE(lines.hold.on);
    lines.hold.until = monotonic_ms();
    assign_waiting(lines, clients);
    EXPECT_FALSE(lines.hold.on);
    EXPECT_EQ(line_for(1, 7), 258);
}

TEST_F(Assign, a_later_hold_takes_the_place_of_the_first)
{
    hold_begin(lines.hold, 300, 1800);
    hold_begin(lines.hold, TTY_LINES, 0);
    EXPECT_EQ(lines.hold.except, TTY_LINES);
    EXPECT_EQ(lines.hold.until, 0);
}
