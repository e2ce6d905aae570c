// What becomes of the data of a session when calls fail, and without room.
#include "kit/relay.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/kit/relay_fixture.h"

class KitRelayFaults : public KitRelay
{
};

static int count_bytes(void *state, kit_flow *flow)
{
    int *count = static_cast<int *>(state);

    while (flow->in_left > 0) {
        flow->in++;
        flow->in_left--;
        ++*count;
    }
    return 0;
}

// A codec that only counts.
static kit_codec counting()
{
    kit_codec codec = {};

    codec.size = sizeof codec;
    codec.state_size = sizeof(int);
    codec.decode = count_bytes;
    codec.encode = count_bytes;
    return codec;
}

TEST_F(KitRelayFaults, text_for_the_user_is_cut_where_there_is_no_room)
{
    fault_row("kit_relay_say", "send", "EAGAIN", "nothing", "",
              "as much of the text as there is room for, to be sent");
    begin();
    relay.to_peer.end = relay.to_peer.size - 3;
    fault::fail("send", 1, EAGAIN, fault::ALWAYS);
    kit_relay_say(&relay, "exit");
    EXPECT_EQ(relay.to_peer.end, relay.to_peer.size);
    kit_relay_say(&relay, "more");
    EXPECT_EQ(memcmp(relay.to_peer.bytes + relay.to_peer.size - 3, "exi", 3),
              0);
}

static int refuse_to_open(void *, kit_flow *flow, const kit_session *)
{
    memcpy(flow->out, "no", 2);
    flow->out_room -= 2;
    return -1;
}

TEST_F(KitRelayFaults, codec_that_cannot_begin_ends_the_connection)
{
    fault_row("kit_relay_open", "calloc", "ENOMEM", "nothing", "",
              "the peer counts as gone");
    kit_codec codec = counting();
    codec.open = refuse_to_open;
    begin(&codec);
    EXPECT_TRUE(relay.peer_gone);
    free(relay.state);
    relay = {};
    fault::fail("calloc", 1, ENOMEM);
    codec = counting();
    begin(&codec);
    EXPECT_TRUE(relay.peer_gone);
    EXPECT_EQ(relay.state, nullptr);
}

// Its state is zeroed all the same.
TEST_F(KitRelayFaults, codec_needs_no_first_word)
{
    const kit_codec codec = counting();
    begin(&codec);
    ASSERT_EQ(write(peer, "abc", 3), 3);
    turn();
    EXPECT_EQ(*static_cast<int *>(relay.state), 3);
    EXPECT_EQ(drain(slave), "");
}

TEST_F(KitRelayFaults, interrupted_calls_are_done_again)
{
    fault_row("kit_relay_move", "recv", "EINTR", "nothing", "",
              "the bytes are read at the next turn");
    fault_row("kit_relay_move", "send", "EINTR", "nothing", "",
              "the bytes are sent at the next turn");
    fault_row("kit_relay_move", "read", "EINTR", "nothing", "", "");
    fault_row("kit_relay_move", "write", "EINTR", "nothing", "",
              "the bytes are typed at the next turn");
    fault_row("kit_relay_finish_terminal", "read", "EINTR", "nothing", "", "");
    begin();
    ASSERT_EQ(write(peer, "in", 2), 2);
    ASSERT_EQ(write(slave, "out", 3), 3);
    for (const char *call : {"recv", "send"}) {
        fault::fail(call, 1, EINTR, 2);
    }
    for (const char *call : {"read", "write"}) {
        fault::fail(call, 1, EINTR, 2, fault::only_fd(master));
    }
    turn();
    turn();
    EXPECT_FALSE(relay.peer_gone);
    EXPECT_EQ(drain(slave), "in");
    EXPECT_EQ(drain(peer), "out");
    ASSERT_EQ(write(slave, "last", 4), 4);
    close(slave);
    slave = -1;
    fault::reset();
    fault::fail("read", 1, EINTR, 2, fault::only_fd(master));
    kit_relay_finish_terminal(&relay);
    EXPECT_EQ(drain(peer), "last");
}

TEST_F(KitRelayFaults, connection_that_breaks_is_gone)
{
    fault_row("kit_relay_move", "recv", "ECONNRESET", "nothing", "",
              "the peer counts as gone");
    fault_row("kit_relay_move", "send", "EPIPE", "nothing", "",
              "the peer counts as gone");
    for (const char *call : {"recv", "send"}) {
        relay = {};
        begin();
        ASSERT_EQ(write(call[0] == 'r' ? peer : slave, "x", 1), 1);
        fault::fail(call, 1, call[0] == 'r' ? ECONNRESET : EPIPE);
        turn();
        EXPECT_TRUE(relay.peer_gone) << call;
        // It is not watched any more, nor written to.
        pollfd watched[2] = {};
        kit_relay_want(&relay, &watched[0], &watched[1]);
        EXPECT_EQ(watched[0].fd, -1);
        kit_relay_say(&relay, "x");
        EXPECT_EQ(drain(peer), "");
        fault::reset();
    }
}

TEST_F(KitRelayFaults, rest_of_the_output_stops_where_there_is_no_room)
{
    fault_row("kit_relay_finish_terminal", "send", "EAGAIN", "nothing", "",
              "what there is no room for stays in the terminal");
    begin();
    fault::fail("send", 1, EAGAIN, fault::ALWAYS);
    for (int i = 0; i < 200 && fill(slave) > 0; i++) {
        turn();
    }
    kit_relay_finish_terminal(&relay);
    EXPECT_FALSE(relay.terminal_ended);
    EXPECT_EQ(kit_buffer_pending(&relay.to_peer), relay.to_peer.size);
    fault::reset();
    do {
        turn();
    } while (!drain(peer).empty());
    kit_relay_finish_terminal(&relay);
    EXPECT_TRUE(relay.terminal_ended);
    EXPECT_TRUE(kit_relay_delivered(&relay));
    // There is no more to read, and nothing to watch.
    pollfd watched[2] = {};
    kit_relay_want(&relay, &watched[0], &watched[1]);
    EXPECT_EQ(watched[1].fd, -1);
    ASSERT_EQ(write(slave, "late", 4), 4);
    turn();
    EXPECT_EQ(drain(peer), "");
}

TEST_F(KitRelayFaults, nothing_is_read_for_a_peer_that_is_gone)
{
    begin();
    close(peer);
    peer = -1;
    turn();
    ASSERT_TRUE(relay.peer_gone);
    ASSERT_EQ(write(slave, "for nobody", 10), 10);
    kit_relay_finish_terminal(&relay);
    EXPECT_FALSE(relay.terminal_ended);
}

TEST_F(KitRelayFaults, end_is_not_typed_behind_what_is_still_to_be_typed)
{
    fault_row("kit_relay_type_end", "tcgetattr", "EIO", "false", "",
              "nothing is typed");
    begin();
    fault::fail("tcgetattr", 1, EIO);
    EXPECT_FALSE(kit_relay_type_end(&relay));
    EXPECT_EQ(drain(slave), "");
    EXPECT_TRUE(kit_relay_type_end(&relay));
    drain(slave);
    fault::fail("write", 1, EAGAIN, fault::ALWAYS, fault::only_fd(master));
    ASSERT_EQ(send(peer, "x", 1, 0), 1);
    turn();
    EXPECT_FALSE(kit_relay_type_end(&relay));
    fault::reset();
    turn();
    EXPECT_EQ(drain(slave), "x");
    // Bytes that the codec has not taken count too.
    relay.from_peer.end = relay.from_peer.start + 1;
    EXPECT_FALSE(kit_relay_type_end(&relay));
}
