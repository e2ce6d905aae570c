// The two ways between a connection and a terminal, with and without a codec.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "kit/relay.h"
#include "tests/support/tcp_pair.h"
#include "tests/unit/kit/relay_fixture.h"

TEST_F(KitRelay, bytes_pass_both_ways_as_they_are)
{
    begin();
    std::string all;
    for (int i = 0; i < 256; i++) {
        all += static_cast<char>(i);
    }
    ASSERT_EQ(write(peer, all.data(), all.size()), 256);
    turn();
    EXPECT_EQ(drain(slave), all);
    ASSERT_EQ(write(slave, all.data(), all.size()), 256);
    turn();
    EXPECT_EQ(drain(peer), all);
    EXPECT_TRUE(kit_relay_delivered(&relay));
}

// What neither side takes stands in bounded buffers and with the systems.
TEST_F(KitRelay, peer_that_does_not_read_stops_the_program_and_loses_nothing)
{
    begin();
    size_t printed = 0;
    for (int i = 0; i < 200; i++) {
        const size_t now = fill(slave);
        printed += now;
        turn();
        if (now == 0) {
            break;
        }
    }
    EXPECT_EQ(fill(slave), 0u);
    size_t seen = 0;
    for (int i = 0; i < 200 && seen < printed; i++) {
        seen += drain(peer).size();
        turn();
    }
    EXPECT_EQ(seen, printed);
}

TEST_F(KitRelay, program_that_does_not_read_stops_the_peer_and_loses_nothing)
{
    begin();
    size_t typed = 0;
    for (int i = 0; i < 200; i++) {
        const size_t now = fill(peer);
        typed += now;
        turn();
        if (now == 0) {
            break;
        }
    }
    EXPECT_EQ(fill(peer), 0u);
    size_t seen = 0;
    for (int i = 0; i < 2000 && seen < typed; i++) {
        seen += drain(slave).size();
        turn();
    }
    EXPECT_EQ(seen, typed);
}

TEST_F(KitRelay, end_of_input_is_no_end_of_output)
{
    begin();
    ASSERT_EQ(shutdown(peer, SHUT_WR), 0);
    turn();
    EXPECT_TRUE(relay.peer_ended);
    EXPECT_FALSE(relay.peer_gone);
    ASSERT_EQ(write(slave, "still", 5), 5);
    turn();
    EXPECT_EQ(drain(peer), "still");
}

TEST_F(KitRelay, peer_that_has_closed_is_gone)
{
    begin();
    close(peer);
    peer = -1;
    turn();
    EXPECT_TRUE(relay.peer_gone);
}

TEST_F(KitRelay, peer_that_has_closed_behind_a_full_buffer_is_gone)
{
    begin();
    for (int i = 0; i < 200 && fill(peer) > 0; i++) {
        turn();
    }
    close(peer);
    peer = -1;
    turn();
    EXPECT_TRUE(relay.peer_gone);
}

// What the peer's system has taken over before its end is input like any other.
TEST_F(KitRelay, input_behind_a_full_buffer_is_read_after_the_end_of_input)
{
    begin();
    size_t typed = 0;
    for (int i = 0; i < 200; i++) {
        const size_t now = fill(peer);
        typed += now;
        turn();
        if (now == 0) {
            break;
        }
    }
    typed += fill(peer);
    ASSERT_EQ(shutdown(peer, SHUT_WR), 0);
    turn();
    EXPECT_TRUE(relay.peer_ended || relay.peer_ending);
    size_t seen = 0;
    for (int i = 0; i < 400 && seen < typed; i++) {
        seen += drain(slave).size();
        turn();
    }
    EXPECT_EQ(seen, typed);
    EXPECT_TRUE(relay.peer_ended);
    EXPECT_FALSE(relay.peer_gone);
}

// A hang-up is reported for as long as nobody has the terminal open.
TEST_F(KitRelay, closed_terminal_with_input_and_output_pending_is_not_watched)
{
    begin();
    for (int i = 0; i < 200 && fill(slave) + fill(peer) > 0; i++) {
        turn();
    }
    ASSERT_GT(kit_buffer_pending(&relay.to_terminal), 0u);
    ASSERT_GT(kit_buffer_pending(&relay.to_peer), 0u);
    close(slave);
    slave = -1;
    turn();
    pollfd watched[2] = {};
    kit_relay_want(&relay, &watched[0], &watched[1]);
    EXPECT_EQ(poll(watched, 2, 0), 0);
    EXPECT_GT(drain(peer).size(), 0u);
    turn();
    EXPECT_GT(drain(peer).size(), 0u);
}

TEST_F(KitRelay, terminal_that_nobody_has_open_is_quiet_and_may_come_back)
{
    begin();
    const std::string name = ptsname(master);
    close(slave);
    slave = -1;
    turn();
    EXPECT_TRUE(relay.terminal_quiet);
    EXPECT_FALSE(relay.terminal_ended);
    slave = open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    ASSERT_EQ(write(slave, "back", 4), 4);
    turn();
    EXPECT_EQ(drain(peer), "back");
}

TEST_F(KitRelay, what_is_left_of_an_ended_program_is_read_to_its_end)
{
    begin();
    ASSERT_EQ(write(slave, "last words", 10), 10);
    close(slave);
    slave = -1;
    kit_relay_finish_terminal(&relay);
    EXPECT_TRUE(relay.terminal_ended);
    EXPECT_EQ(drain(peer), "last words");
}

TEST_F(KitRelay, end_is_typed_once_at_the_start_of_a_line_and_twice_within)
{
    begin();
    termios modes;
    tcgetattr(slave, &modes);
    modes.c_cc[VEOF] = 4;
    tcsetattr(slave, TCSANOW, &modes);
    kit_relay_type_end(&relay);
    EXPECT_EQ(drain(slave), "\004");
    ASSERT_EQ(write(peer, "half", 4), 4);
    turn();
    kit_relay_type_end(&relay);
    EXPECT_EQ(drain(slave), "half\004\004");
    kit_relay_type_end(&relay);
    EXPECT_EQ(drain(slave), "\004");
}

// ---- With a codec that doubles "x" on the way out, drops "-" on the way in,
// and answers "?" with "!". ----

static int open_test(void *state, kit_flow *flow, const kit_session *)
{
    memcpy(flow->out, "hi:", 3);
    flow->out += 3;
    flow->out_room -= 3;
    *static_cast<int *>(state) = 7;
    return 0;
}

static int decode_test(void *state, kit_flow *flow)
{
    if (*static_cast<int *>(state) != 7) {
        return -1;
    }
    while (flow->in_left > 0 && flow->out_room > 0 && flow->back_room > 0) {
        const uint8_t byte = *flow->in++;
        flow->in_left--;
        if (byte == 'E') {
            return -1;
        }
        if (byte == '?') {
            *flow->back++ = '!';
            flow->back_room--;
        } else if (byte != '-') {
            *flow->out++ = byte;
            flow->out_room--;
        }
    }
    return 0;
}

static int encode_test(void *, kit_flow *flow)
{
    while (flow->in_left > 0 && flow->out_room >= 2) {
        const uint8_t byte = *flow->in++;
        flow->in_left--;
        for (int i = 0; i < (byte == 'x' ? 2 : 1); i++) {
            *flow->out++ = byte;
            flow->out_room--;
        }
    }
    return 0;
}

static const kit_codec CODEC = {sizeof CODEC,
                                sizeof(int),
                                open_test,
                                decode_test,
                                encode_test,
                                nullptr,
                                0,
                                nullptr,
                                0};

TEST_F(KitRelay, codec_translates_both_ways_and_answers)
{
    begin(&CODEC);
    ASSERT_EQ(write(peer, "a-b?c", 5), 5);
    turn();
    EXPECT_EQ(drain(slave), "abc");
    EXPECT_EQ(drain(peer), "hi:!");
    ASSERT_EQ(write(slave, "axb", 3), 3);
    turn();
    EXPECT_EQ(drain(peer), "axxb");
}

static int g_urgent;

static void count_urgent(void *)
{
    g_urgent++;
}

static short wanted_of(kit_relay *relay)
{
    pollfd watched[2] = {};

    kit_relay_want(relay, &watched[0], &watched[1]);
    return watched[0].events;
}

class KitRelayUrgent : public KitRelay
{
  protected:
    void SetUp() override
    {
        int ends[2];
        int on = 1;
        KitRelay::SetUp();
        close(peer);
        close(connection);
        support::tcp_pair(ends);
        peer = ends[0];
        connection = ends[1];
        setsockopt(connection, SOL_SOCKET, SO_OOBINLINE, &on, sizeof on);
        g_urgent = 0;
        codec.urgent = count_urgent;
        begin(&codec);
    }

    kit_codec codec = CODEC;
};

TEST_F(KitRelayUrgent, is_heard_of_only_where_the_keeper_has_made_it_a_place)
{
    EXPECT_EQ(wanted_of(&relay) & POLLPRI, 0);
    relay.hears_urgent = true;
    EXPECT_NE(wanted_of(&relay) & POLLPRI, 0);
}

TEST_F(KitRelayUrgent, stays_in_its_place)
{
    relay.hears_urgent = true;
    ASSERT_EQ(send(peer, "abc", 3, MSG_OOB), 3);
    ASSERT_EQ(write(peer, "d", 1), 1);
    turn();
    EXPECT_EQ(drain(slave), "abcd");
    EXPECT_GT(g_urgent, 0);
    EXPECT_NE(wanted_of(&relay) & POLLPRI, 0);
}

// What it comes behind is not taken: it would be reported for as long.
TEST_F(KitRelayUrgent, is_not_asked_for_again_while_there_is_no_room_to_read_it)
{
    relay.hears_urgent = true;
    fcntl(peer, F_SETFL, O_NONBLOCK);
    const int small = 16384;
    setsockopt(peer, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    setsockopt(peer, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    setsockopt(connection, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    // A peer that takes no answers has nothing more decoded.
    const std::string questions(65536, '?');
    for (int i = 0; i < 2000; i++) {
        if (write(peer, questions.data(), questions.size()) <= 0) {
            break;
        }
        turn();
    }
    ASSERT_EQ(kit_buffer_pending(&relay.from_peer), relay.from_peer.size);
    EXPECT_NE(wanted_of(&relay) & POLLPRI, 0);
    pollfd watched[2] = {};
    watched[0] = {connection, POLLPRI, POLLPRI};
    kit_relay_move(&relay, &watched[0], &watched[1]);
    EXPECT_EQ(g_urgent, 1);
    EXPECT_EQ(wanted_of(&relay) & POLLPRI, 0);
}

TEST_F(KitRelay, output_that_grows_under_translation_is_bounded_and_whole)
{
    begin(&CODEC);
    drain(peer);
    const std::string text(4000, 'x');
    size_t printed = 0;
    size_t seen = 0;
    for (int i = 0; i < 60; i++) {
        const ssize_t put = write(slave, text.data(), text.size());
        printed += put > 0 ? static_cast<size_t>(put) : 0;
        turn();
    }
    for (int i = 0; i < 300 && seen < 2 * printed + 3; i++) {
        seen += drain(peer).size();
        turn();
    }
    EXPECT_GT(printed, 0u);
    EXPECT_EQ(seen, 2 * printed + 3);
}

// A program that must print before it reads would wait for ever.
TEST_F(KitRelay, output_passes_the_codec_while_input_is_not_taken)
{
    begin(&CODEC);
    turn();
    drain(peer);
    for (int i = 0; i < 200 && fill(peer) > 0; i++) {
        turn();
    }
    ASSERT_EQ(write(slave, "print", 5), 5);
    turn();
    EXPECT_EQ(drain(peer), "print");
}

TEST_F(KitRelay, codec_that_gives_up_ends_the_connection)
{
    begin(&CODEC);
    ASSERT_EQ(write(peer, "aE", 2), 2);
    turn();
    EXPECT_TRUE(relay.peer_gone);
}

TEST_F(KitRelay, text_for_the_user_passes_the_codec)
{
    begin(&CODEC);
    kit_relay_say(&relay, "exit");
    EXPECT_EQ(drain(peer), "hi:exxit");
}
