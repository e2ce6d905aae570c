// What a codec can do for its session: have the program wait for what the peer
// tells of its terminal, hear of urgent data, and let who is refused be told.
#include <netinet/in.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "tests/system/kit/kit_daemon.h"

// A protocol in which a peer says, in bytes of its own: 1 and a size, 2 the
// type xterm, 3 that it has told all, 4 interrupt, 5 that urgent data ends.
struct toy {
    uint8_t size[2];
    int size_left;
    bool settled;
    bool discarding;
};

static void take(toy *here, kit_flow *flow, uint8_t byte)
{
    switch (here->size_left > 0 ? 0 : byte) {
    case 0:
        here->size[2 - here->size_left--] = byte;
        if (here->size_left == 0) {
            kit_terminal_size(here->size[0], here->size[1]);
        }
        break;
    case 1:
        here->size_left = 2;
        break;
    case 2:
        kit_terminal_type("xterm");
        break;
    case 3:
        here->settled = true;
        break;
    case 4:
        *flow->out++ = kit_terminal_character(VINTR);
        flow->out_room--;
        break;
    case 5:
        here->discarding = false;
        break;
    default:
        if (!here->discarding) {
            *flow->out++ = byte;
            flow->out_room--;
        }
    }
}

static int decode(void *state, kit_flow *flow)
{
    while (flow->in_left > 0 && flow->out_room > 0) {
        const uint8_t byte = *flow->in++;
        flow->in_left--;
        take(static_cast<toy *>(state), flow, byte);
    }
    return 0;
}

static int encode(void *, kit_flow *flow)
{
    while (flow->in_left > 0 && flow->out_room > 0) {
        *flow->out++ = *flow->in++;
        flow->in_left--;
        flow->out_room--;
    }
    return 0;
}

static int ready(const void *state)
{
    return static_cast<const toy *>(state)->settled ? 1 : 0;
}

static void urgent(void *state)
{
    static_cast<toy *>(state)->discarding = true;
}

class KitCodec : public KitTest
{
  protected:
    void SetUp() override
    {
        KitTest::SetUp();
        codec.size = sizeof codec;
        codec.state_size = sizeof(toy);
        codec.decode = decode;
        codec.encode = encode;
        codec.ready = ready;
        codec.ready_ms = DEADLINE_MS;
        codec.urgent = urgent;
        // A protocol that the session service does not relay.
        service.size = sizeof service;
        service.protocol = 4;
        service.port = free_port(AF_INET);
        service.families = KIT_IPV4;
        service.program = program;
        service.codec = &codec;
        service.admission = &rules;
        rules.size = sizeof rules;
    }

    int start_with(const char *command)
    {
        program[2] = command;
        start({&service});
        const int client = client_of(service);
        EXPECT_GE(client, 0);
        return client;
    }

    static constexpr char SHOW[] = "stty size; echo $TERM; echo done; read x";

    const char *program[4] = {"/bin/sh", "-c", nullptr, nullptr};
    kit_codec codec = {};
    kit_admission rules = {};
    kit_service service = {};
};

TEST_F(KitCodec, program_waits_for_what_the_peer_tells_of_its_terminal)
{
    const int client = start_with(SHOW);
    // The time is not over when this comes, and was used up by nothing else.
    ASSERT_TRUE(write_all(client, "\001\204\062"));
    ASSERT_TRUE(write_all(client, "\002"));
    EXPECT_TRUE(eventually([&] {
        return word_of(ask("sessions"), "pid") == "0";
    }));
    ASSERT_TRUE(write_all(client, "\003"));
    EXPECT_EQ(read_until(client, "done\r\n"), "50 132\r\nxterm\r\ndone\r\n");
    close(client);
}

TEST_F(KitCodec, program_does_not_wait_longer_than_it_should)
{
    codec.ready_ms = 50;
    const int client = start_with(SHOW);
    EXPECT_EQ(read_until(client, "done\r\n"), "24 80\r\nvt100\r\ndone\r\n");
    close(client);
}

TEST_F(KitCodec, line_says_what_the_terminal_is)
{
    const int client = start_with(SHOW);
    ASSERT_TRUE(write_all(client, "\001\204\062\002\003"));
    read_until(client, "done\r\n");
    EXPECT_TRUE(stored_has(258, "TERM=xterm"));
    EXPECT_TRUE(stored_has(258, "COLUMNS=132"));
    EXPECT_TRUE(stored_has(258, "LINES=50"));
    close(client);
    EXPECT_TRUE(eventually([&] {
        return !stored_has(258, "COLUMNS=132") && !stored_has(258, "LINES=50");
    }));
}

TEST_F(KitCodec, line_says_nothing_of_a_size_that_was_not_told)
{
    const int client = start_with(SHOW);
    ASSERT_TRUE(write_all(client, "\003"));
    read_until(client, "done\r\n");
    EXPECT_TRUE(stored_has(258, "TERM=vt100"));
    for (const std::string &entry : stored(258)) {
        EXPECT_NE(entry.substr(0, 8), "COLUMNS=");
        EXPECT_NE(entry.substr(0, 6), "LINES=");
    }
    close(client);
}

TEST_F(KitCodec, program_hears_of_a_new_size)
{
    const int client = start_with("trap 'stty size' WINCH; echo ready; "
                                  "while read x; do :; done");
    ASSERT_TRUE(write_all(client, "\003"));
    read_until(client, "ready\r\n");
    ASSERT_TRUE(write_all(client, "\001\144\024"));
    const std::string text = read_until(client, "20 100\r\n");
    EXPECT_EQ(text, "20 100\r\n");
    close(client);
}

TEST_F(KitCodec, type_that_is_told_late_changes_nothing)
{
    const int client = start_with(SHOW);
    ASSERT_TRUE(write_all(client, "\003"));
    read_until(client, "done\r\n");
    ASSERT_TRUE(write_all(client, "\002\n"));
    EXPECT_TRUE(ended(client));
    close(client);
}

TEST_F(KitCodec, program_of_a_peer_that_has_gone_does_not_start)
{
    const std::string mark = path("/started");
    const std::string command = "touch " + mark;
    const int client = start_with(command.c_str());
    EXPECT_TRUE(eventually([&] {
        return ask("sessions").find("line=258") != std::string::npos;
    }));
    // Not a word, and a reset: nobody will take anything.
    const linger at_once = {1, 0};
    setsockopt(client, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(client);
    EXPECT_TRUE(eventually([&] {
        return ask("sessions") == "ok\n";
    }));
    EXPECT_NE(access(mark.c_str(), F_OK), 0);
}

TEST_F(KitCodec, session_can_be_ended_while_its_program_waits)
{
    const int client = start_with(SHOW);
    EXPECT_TRUE(eventually([&] {
        return ask("sessions").find("line=258") != std::string::npos;
    }));
    EXPECT_EQ(ask("kick 258 enough"), "ok\n");
    EXPECT_NE(all_of(client).find("enough"), std::string::npos);
    close(client);
}

TEST_F(KitCodec, urgent_data_throws_away_what_comes_before_its_place)
{
    const int client =
        start_with("stty -echo; echo ready; read x; echo \"<$x>\"");
    ASSERT_TRUE(write_all(client, "\003"));
    read_until(client, "ready\r\n");
    ASSERT_EQ(send(client, "lost\n\005", 6, MSG_OOB), 6);
    ASSERT_TRUE(write_all(client, "kept\n"));
    EXPECT_EQ(read_until(client, ">\r\n"), "<kept>\r\n");
    close(client);
}

// What was typed fills the terminal, and all that stands before it.
TEST_F(KitCodec, urgent_interrupt_reaches_a_program_that_reads_nothing)
{
    const int client = start_with("stty -echo; trap : INT; "
                                  "(echo ready; exec sleep 1000); echo over");
    ASSERT_TRUE(write_all(client, "\003"));
    read_until(client, "ready\r\n");
    std::string typed;
    for (int i = 0; i < 3000; i++) {
        typed += "typed ahead, and nobody reads it\n";
    }
    ASSERT_TRUE(write_all(client, typed));
    ASSERT_EQ(send(client, "\004\005", 2, MSG_OOB), 2);
    EXPECT_EQ(read_until(client, "over\r\n"), "over\r\n");
    close(client);
}

TEST_F(KitCodec, who_is_refused_is_told_so_where_it_can_be_read)
{
    rules.most_sessions = 1;
    codec.plain_text = 1;
    const int client = start_with(SHOW);
    EXPECT_TRUE(eventually([&] {
        return ask("sessions").find("line=258") != std::string::npos;
    }));
    const int second = client_of(service);
    EXPECT_EQ(all_of(second),
              "ttyline: all sessions of this service are in use\r\n");
    close(second);
    close(client);
}

TEST_F(KitCodec, who_is_refused_is_told_nothing_where_it_cannot_be_read)
{
    rules.most_sessions = 1;
    const int client = start_with(SHOW);
    EXPECT_TRUE(eventually([&] {
        return ask("sessions").find("line=258") != std::string::npos;
    }));
    const int second = client_of(service);
    EXPECT_EQ(all_of(second), "");
    close(second);
    close(client);
}

// ---- Of a session that the loop does not hear. ----

TEST_F(KitCodec, session_of_an_unrelayed_protocol_is_known_while_it_runs)
{
    codec.ready = nullptr;
    start_with("echo done; read x");
    const std::string row = running();
    EXPECT_EQ(word_of(row, "line"), "258");
    EXPECT_EQ(word_of(row, "device").substr(0, 9), "/dev/pts/");
}

TEST_F(KitCodec,
       daemon_keeps_nothing_of_an_unrelayed_session_that_its_end_needs)
{
    codec.ready = nullptr;
    const int client = start_with("echo done; read x");
    running();
    // The bell and the channel alone, under the numbers of the other two.
    EXPECT_EQ(daemon->terminals(), 0);
    close(client);
    EXPECT_TRUE(eventually([&] {
        return ask("sessions") == "ok\n";
    }));
    EXPECT_TRUE(daemon->has_no_children());
}

TEST_F(KitCodec, unrelayed_session_goes_on_behind_the_limit_for_its_begin)
{
    codec.ready = nullptr;
    const int client = start_with("echo done; sleep 12; echo still");
    EXPECT_EQ(read_until(client, "still\r\n"), "done\r\nstill\r\n");
    close(client);
}

static int log_in(const kit_session *session, void *)
{
    char byte;

    kit_login(session, "alice", 1);
    return read(0, &byte, 1) == 1 ? 0 : 1;
}

TEST_F(KitCodec, login_of_an_unrelayed_session_is_known)
{
    codec.ready = nullptr;
    service.program = nullptr;
    service.function = log_in;
    start({&service});
    const int client = client_of(service);
    EXPECT_TRUE(eventually([&] {
        return word_of(ask("sessions"), "user") == "alice";
    }));
    close(client);
}
