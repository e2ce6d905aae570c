// What the daemon makes of a client that the test plays: of what it says of its
// terminal, of commands, and of one that says too much, too little or takes
// nothing.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "tests/system/programs/telnetd_run.h"

static const std::string READY = "ready\r\n";

static std::string size_of(int columns, int rows)
{
    std::string text = {IAC, SB, NAWS};
    for (const int byte :
         {columns >> 8, columns & 255, rows >> 8, rows & 255}) {
        text += std::string(byte == 255 ? 2 : 1, static_cast<char>(byte));
    }
    return text + std::string({IAC, SE});
}

static std::string type_is(const std::string &name)
{
    return std::string({IAC, SB, TTYPE, 0}) + name + std::string({IAC, SE});
}

static const char SHOW[] = "echo \"[$(stty size)]<$TERM>\"; read x";
static const std::string TELLS = {IAC, WILL, NAWS, IAC, WILL, TTYPE};

TEST_F(Telnetd, program_finds_what_the_client_tells)
{
    start(SHOW);
    const auto peer = connect();
    ASSERT_TRUE(peer->say(TELLS + size_of(255, 50) + type_is("VT220")));
    EXPECT_EQ(peer->text_until(">"), "[50 255]<vt220>");
}

TEST_F(Telnetd, silent_client_is_not_waited_for)
{
    start(SHOW);
    const auto peer = connect();
    EXPECT_EQ(peer->text_until(">"), "[24 80]<vt100>");
    EXPECT_EQ(peer->commands(), std::string({WILL, OPTION_ECHO, WILL, SGA, DO,
                                             SGA, DO, NAWS, DO, TTYPE}));
}

TEST_F(Telnetd, type_that_is_unknown_or_no_name_is_not_believed)
{
    start(SHOW, {"--setenv", "A=b", "--term", "vt102"});
    for (const char *name : {"../../../tmp/x", "unheard-of", "a b", ""}) {
        const auto peer = connect();
        ASSERT_TRUE(
            peer->say(TELLS + size_of(80, 24) + type_is(name) + type_is(name)));
        EXPECT_EQ(peer->text_until(">"), "[24 80]<vt102>") << name;
        peer->say("\r\n");
        peer->text_to_end();
    }
}

TEST_F(Telnetd, sizes_that_no_terminal_has_change_nothing)
{
    start(SHOW);
    for (const auto &[columns, rows] :
         {std::pair(0, 0), std::pair(65535, 65535), std::pair(4096, 24)}) {
        const auto peer = connect();
        ASSERT_TRUE(
            peer->say(TELLS + size_of(columns, rows) + type_is("vt220")));
        EXPECT_EQ(peer->text_until(">"), "[24 80]<vt220>");
        peer->say("\r\n");
        peer->text_to_end();
    }
}

// Counts interrupts up to two, whenever they come.
static const char COUNT[] = "n=0; trap 'n=$((n + 1)); echo \"got $n\"' INT; "
                            "echo ready; while [ $n -lt 2 ]; do sleep 0.1; "
                            "done; echo over";

TEST_F(Telnetd, interrupt_process_and_break_interrupt_the_program)
{
    start(COUNT);
    const auto peer = connect();
    ASSERT_TRUE(peer->refuse());
    peer->text_until(READY);
    ASSERT_TRUE(peer->say({IAC, IP}));
    EXPECT_EQ(peer->text_until("got 1\r\n"), "^Cgot 1\r\n");
    ASSERT_TRUE(peer->say({IAC, '\xf3'}));
    EXPECT_EQ(peer->text_until("over\r\n"), "^Cgot 2\r\nover\r\n");
}

TEST_F(Telnetd, interrupt_is_what_the_terminal_has_for_it)
{
    start(std::string("stty intr ^X; ") + COUNT);
    const auto peer = connect();
    ASSERT_TRUE(peer->refuse());
    peer->text_until(READY);
    ASSERT_TRUE(peer->say({IAC, IP}));
    EXPECT_EQ(peer->text_until("got 1\r\n"), "^Xgot 1\r\n");
}

TEST_F(Telnetd, synch_in_the_middle_of_output_stops_it)
{
    start("trap : INT; (echo ready; exec yes); echo; echo over");
    const auto peer = connect();
    ASSERT_TRUE(peer->refuse());
    peer->text_until(READY);
    peer->text_until("y\r\ny\r\n");
    ASSERT_TRUE(peer->say(std::string("thrown away") + IAC + IP));
    const std::string mark = {IAC, DATA_MARK};
    ASSERT_EQ(send(peer->fd(), mark.data(), mark.size(), MSG_OOB), 2);
    const std::string text = peer->text_until("over\r\n");
    EXPECT_NE(text.find("over\r\n"), std::string::npos);
}

TEST_F(Telnetd, synch_throws_away_what_comes_before_it)
{
    start("stty -echo; echo ready; read x; echo \"<$x>\"");
    const auto peer = connect();
    ASSERT_TRUE(peer->refuse());
    peer->text_until(READY);
    const std::string lost = std::string("lost\r\n") + IAC + DATA_MARK;
    ASSERT_EQ(send(peer->fd(), lost.data(), lost.size(), MSG_OOB),
              static_cast<ssize_t>(lost.size()));
    ASSERT_TRUE(peer->say("kept\r\n"));
    EXPECT_EQ(peer->text_until(">"), "<kept>");
}

TEST_F(Telnetd, every_byte_passes_both_ways_when_binary_was_agreed)
{
    start("stty raw -echo; echo ready; head -c 256");
    const auto peer = connect();
    ASSERT_TRUE(peer->say({IAC, WILL, BINARY, IAC, DO, BINARY}));
    ASSERT_TRUE(peer->refuse());
    peer->text_until("ready\n");
    std::string all;
    std::string doubled;
    for (int i = 0; i < 256; i++) {
        all += static_cast<char>(i);
        doubled += std::string(i == 255 ? 2 : 1, static_cast<char>(i));
    }
    ASSERT_TRUE(peer->say(doubled));
    EXPECT_EQ(peer->text_to_end(), all);
    EXPECT_NE(peer->commands().find(std::string({DO, BINARY, WILL, BINARY})),
              std::string::npos);
}

TEST_F(Telnetd, ends_of_lines_are_those_of_the_protocol_without_binary)
{
    start("stty raw -echo; echo ready; head -c 6 | od -An -c");
    const auto peer = connect();
    ASSERT_TRUE(peer->refuse());
    peer->text_until("ready\n");
    ASSERT_TRUE(peer->say(std::string("a\r\0b\r\nc\n", 8)));
    EXPECT_EQ(peer->text_to_end(), "   a  \\r   b  \\r   c  \\n\n");
}

TEST_F(Telnetd, options_without_end_have_one_answer_each_and_harm_nobody)
{
    start("echo ready; read x; echo \"got $x\"");
    const auto peer = connect();
    ASSERT_TRUE(peer->refuse());
    peer->text_until(READY);
    const size_t before = peer->commands().size();
    constexpr size_t ROUNDS = 2000;
    constexpr size_t OPTIONS = 40;
    std::string storm;
    for (size_t option = 100; option < 100 + OPTIONS; option++) {
        storm += {IAC, WILL, static_cast<char>(option)};
        storm += {IAC, DO, static_cast<char>(option)};
        storm += {IAC, WONT, static_cast<char>(option)};
    }
    for (size_t i = 0; i < ROUNDS; i++) {
        ASSERT_TRUE(peer->say(storm));
        // Answers are taken late, but they are.
        if (i % 50 == 49) {
            ASSERT_TRUE(peer->say({IAC, '\xf6'}));
            peer->text_until("[yes]\r\n");
        }
    }
    ASSERT_TRUE(peer->say("end\r\n"));
    EXPECT_NE(peer->text_until("got end").find("got end"), std::string::npos);
    EXPECT_EQ(peer->commands().size() - before, ROUNDS * OPTIONS * 2 * 2);
}

TEST_F(Telnetd, client_that_takes_no_answers_is_not_heard_and_harms_nobody)
{
    start("echo ready; read x; echo \"got $x\"");
    const auto deaf = connect();
    ASSERT_TRUE(deaf->refuse());
    deaf->text_until(READY);
    std::string questions;
    for (int i = 0; i < 10000; i++) {
        questions += {IAC, '\xf6'};
    }
    // Until neither its system nor the daemon takes any more.
    ssize_t put = 0;
    for (int i = 0; i < 10000 && put >= 0; i++) {
        put =
            send(deaf->fd(), questions.data(), questions.size(), MSG_DONTWAIT);
    }
    const auto other = connect();
    ASSERT_TRUE(other->refuse());
    other->text_until(READY);
    ASSERT_TRUE(other->say("me\r\n"));
    EXPECT_NE(other->text_until("got me").find("got me"), std::string::npos);
}

TEST_F(Telnetd, subnegotiation_that_never_ends_keeps_nobody_waiting)
{
    start("echo ready; read x; echo \"got $x\"", {"--idle", "5"});
    const auto half = connect();
    ASSERT_TRUE(half->say(TELLS + std::string({IAC, SB, NAWS, 0, 80, 0})));
    half->text_until(READY);
    const auto other = connect();
    ASSERT_TRUE(other->refuse());
    other->text_until(READY);
    ASSERT_TRUE(other->say("me\r\n"));
    EXPECT_NE(other->text_until("got me").find("got me"), std::string::npos);
    EXPECT_NE(half->text_to_end().find("nothing has moved"), std::string::npos);
}

TEST_F(Telnetd, megabyte_for_a_slow_client_is_whole)
{
    start("stty -onlcr; echo ready; head -c 1048576 /dev/zero | tr '\\0' x");
    const int small = 32768;
    const int fd = connect_port(AF_INET, port);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    Peer peer(fd);
    ASSERT_TRUE(peer.refuse());
    peer.text_until("ready");
    usleep(200000); // the program stands still meanwhile, or it does not
    const std::string text = peer.text_to_end();
    EXPECT_EQ(text.find_first_not_of("\r\nx"), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), 'x'), 1048576);
}

TEST_F(Telnetd, refused_options_stay_refused_whatever_is_sent_for_them)
{
    start("env; echo ready; read x");
    const auto peer = connect();
    // The environment, old and new; line editing; authentication; encryption.
    for (const char option : {'\x27', '\x24', '\x22', '\x25', '\x26', '\x2a'}) {
        ASSERT_TRUE(peer->say({IAC, WILL, option}));
        ASSERT_TRUE(peer->say(std::string({IAC, SB, option, 0, 0}) +
                              "LD_PRELOAD\1/tmp/x.so" +
                              std::string({IAC, SE})));
    }
    ASSERT_TRUE(peer->refuse());
    const std::string text = peer->text_until(READY);
    EXPECT_EQ(text.find("LD_PRELOAD"), std::string::npos) << text;
    for (const char option : {'\x27', '\x24', '\x22', '\x25', '\x26', '\x2a'}) {
        EXPECT_NE(peer->commands().find(std::string({DONT, option})),
                  std::string::npos);
    }
}
