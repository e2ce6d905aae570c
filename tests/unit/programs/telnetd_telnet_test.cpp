// What a telnet peer says, and what it is told: bytes in, bytes out.
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "programs/telnetd/telnet.h"

static constexpr char IAC = '\xff';
static constexpr char DONT = '\xfe';
static constexpr char DO = '\xfd';
static constexpr char WONT = '\xfc';
static constexpr char WILL = '\xfb';
static constexpr char SB = '\xfa';
static constexpr char SE = '\xf0';
static constexpr char BINARY = 0;
static constexpr char OPTION_ECHO = 1;
static constexpr char SGA = 3;
static constexpr char TTYPE = 24;
static constexpr char NAWS = 31;

static bool knows_vt(const char *type)
{
    return strncmp(type, "vt", 2) == 0;
}

class Telnet : public testing::Test
{
  protected:
    using step_function = void(telnet *, kit_flow *);

    void SetUp() override
    {
        state.known = knows_vt;
        state.interrupt = 3;
        state.erase = 127;
        state.kill = 21;
    }

    // So many bytes at a time; the answers go to back.
    std::string step(step_function *function, const std::string &text,
                     size_t piece)
    {
        std::string result;
        for (size_t at = 0; at < text.size(); at += piece) {
            uint8_t out[256];
            uint8_t answers[256];
            const std::string part = text.substr(at, piece);
            kit_flow flow = {reinterpret_cast<const uint8_t *>(part.data()),
                             part.size(),
                             out,
                             sizeof out,
                             answers,
                             sizeof answers};
            function(&state, &flow);
            EXPECT_EQ(flow.in_left, 0u);
            result.append(out, flow.out);
            back.append(answers, flow.back);
        }
        return result;
    }

    std::string decode(const std::string &text)
    {
        return step(telnet_decode, text, 64);
    }

    std::string encode(const std::string &text)
    {
        return step(telnet_encode, text, 64);
    }

    // What is answered to these bytes alone.
    std::string answer_to(const std::string &text)
    {
        back.clear();
        EXPECT_EQ(decode(text), "");
        return back;
    }

    std::string open()
    {
        uint8_t out[64];
        kit_flow flow = {nullptr, 0, out, sizeof out, nullptr, 0};
        telnet_open(&state, &flow);
        return std::string(out, flow.out);
    }

    static std::string command(char verb, char option)
    {
        return std::string({IAC, verb, option});
    }

    static std::string sub(const std::string &body)
    {
        return std::string({IAC, SB}) + body + std::string({IAC, SE});
    }

    static std::string size_of(uint16_t columns, uint16_t rows)
    {
        std::string body(1, NAWS);
        for (const int byte :
             {columns >> 8, columns & 255, rows >> 8, rows & 255}) {
            body += std::string(byte == 255 ? 2 : 1, static_cast<char>(byte));
        }
        return sub(body);
    }

    static std::string type_is(const std::string &name)
    {
        return sub(std::string({TTYPE, 0}) + name);
    }

    telnet state = {};
    std::string back;
};

static const std::string ASK_TYPE = {IAC, SB, TTYPE, 1, IAC, SE};

TEST_F(Telnet, server_says_first_what_it_does_and_what_it_asks_for)
{
    EXPECT_EQ(open(), command(WILL, OPTION_ECHO) + command(WILL, SGA) +
                          command(DO, SGA) + command(DO, NAWS) +
                          command(DO, TTYPE));
}

TEST_F(Telnet, text_passes_as_it_is)
{
    EXPECT_EQ(decode("ls -l\t\x1b[A\x80\xfe"), "ls -l\t\x1b[A\x80\xfe");
    EXPECT_EQ(encode("\x1b[1mtotal 0\r\n\x80\xfe"),
              "\x1b[1mtotal 0\r\n\x80\xfe");
    EXPECT_EQ(back, "");
}

TEST_F(Telnet, byte_255_is_doubled_both_ways)
{
    EXPECT_EQ(decode({'a', IAC, IAC, 'b'}), std::string({'a', IAC, 'b'}));
    EXPECT_EQ(encode({'a', IAC, 'b'}), std::string({'a', IAC, IAC, 'b'}));
}

TEST_F(Telnet, end_of_line_is_one_carriage_return)
{
    EXPECT_EQ(decode(std::string("a\r\0b\r\nc\rd\ne\r\r\n", 14)),
              "a\rb\rc\rd\ne\r\r");
}

TEST_F(Telnet, end_of_line_may_be_cut_anywhere)
{
    EXPECT_EQ(step(telnet_decode, std::string("a\r\0b\r\nc", 7), 1), "a\rb\rc");
}

TEST_F(Telnet, lone_carriage_return_to_the_peer_has_a_nul_behind_it)
{
    EXPECT_EQ(step(telnet_encode, "a\rb\r\nc\r\rd", 1),
              std::string("a\r\0b\r\nc\r\0\r\0d", 12));
}

TEST_F(Telnet, eight_bits_on_request_change_no_ends_of_lines)
{
    EXPECT_EQ(answer_to(command(DO, BINARY) + command(WILL, BINARY)),
              command(WILL, BINARY) + command(DO, BINARY));
    EXPECT_EQ(decode(std::string("a\r\0b\r\n", 6)),
              std::string("a\r\0b\r\n", 6));
    EXPECT_EQ(encode("a\rb"), "a\rb");
    EXPECT_EQ(answer_to(command(DONT, BINARY) + command(WONT, BINARY)),
              command(WONT, BINARY) + command(DONT, BINARY));
    EXPECT_EQ(decode("a\r\n"), "a\r");
}

TEST_F(Telnet, answers_to_what_was_asked_are_not_answered)
{
    open();
    EXPECT_EQ(answer_to(command(DO, OPTION_ECHO) + command(DO, SGA) +
                        command(WILL, SGA) + command(WILL, NAWS)),
              "");
    EXPECT_EQ(answer_to(command(DO, OPTION_ECHO)), "");
}

TEST_F(Telnet, refusals_of_what_was_asked_are_not_answered)
{
    open();
    EXPECT_EQ(answer_to(command(DONT, OPTION_ECHO) + command(DONT, SGA) +
                        command(WONT, SGA) + command(WONT, NAWS) +
                        command(WONT, TTYPE)),
              "");
}

TEST_F(Telnet, option_that_was_on_is_given_up_once)
{
    open();
    decode(command(DO, OPTION_ECHO));
    EXPECT_EQ(answer_to(command(DONT, OPTION_ECHO)),
              command(WONT, OPTION_ECHO));
    EXPECT_EQ(answer_to(command(DONT, OPTION_ECHO)), "");
    EXPECT_EQ(answer_to(command(DO, OPTION_ECHO)), command(WILL, OPTION_ECHO));
}

TEST_F(Telnet, every_other_option_is_refused)
{
    open();
    for (int option = 0; option < 256; option++) {
        const char name = static_cast<char>(option);
        if (name != BINARY && name != OPTION_ECHO && name != SGA) {
            EXPECT_EQ(answer_to(command(DO, name)), command(WONT, name));
        }
        if (name != BINARY && name != SGA && name != NAWS && name != TTYPE) {
            EXPECT_EQ(answer_to(command(WILL, name)), command(DONT, name));
        }
    }
}

TEST_F(Telnet, refused_option_is_not_begun_by_a_subnegotiation)
{
    open();
    // Environment, line editing, authentication, encryption.
    for (const char option : {'\x27', '\x22', '\x25', '\x26'}) {
        decode(command(WILL, option));
        EXPECT_EQ(answer_to(sub(std::string({option, 0}) + "USER\1root")), "");
    }
    EXPECT_EQ(decode("a"), "a");
}

TEST_F(Telnet, window_size_is_taken)
{
    open();
    decode(command(WILL, NAWS));
    EXPECT_FALSE(state.size_settled);
    EXPECT_EQ(answer_to(size_of(132, 50)), "");
    EXPECT_EQ(state.columns, 132);
    EXPECT_EQ(state.rows, 50);
    EXPECT_TRUE(state.size_settled);
    decode(size_of(255, 511));
    EXPECT_EQ(state.columns, 255);
    EXPECT_EQ(state.rows, 511);
}

TEST_F(Telnet, sizes_that_no_terminal_has_are_left_out)
{
    open();
    decode(command(WILL, NAWS) + size_of(80, 24));
    for (const auto &[columns, rows] :
         {std::pair(0, 0), std::pair(0, 24), std::pair(80, 0),
          std::pair(65535, 65535), std::pair(4096, 24), std::pair(80, 4096)}) {
        decode(size_of(static_cast<uint16_t>(columns),
                       static_cast<uint16_t>(rows)));
        EXPECT_EQ(state.columns, 80);
        EXPECT_EQ(state.rows, 24);
    }
    decode(size_of(4095, 4095));
    EXPECT_EQ(state.columns, 4095);
    decode(size_of(1, 1));
    EXPECT_EQ(state.rows, 1);
}

TEST_F(Telnet, size_of_another_length_is_left_out)
{
    open();
    decode(command(WILL, NAWS));
    decode(sub({NAWS, 0, 80, 0}));
    decode(sub({NAWS, 0, 80, 0, 24, 0}));
    decode(sub({NAWS}));
    decode(sub(""));
    EXPECT_EQ(state.columns, 0);
    EXPECT_FALSE(state.size_settled);
}

TEST_F(Telnet, size_is_heard_only_from_a_peer_that_has_agreed_to_tell_it)
{
    decode(size_of(132, 50));
    EXPECT_EQ(state.columns, 0);
    EXPECT_FALSE(state.size_settled);
}

TEST_F(Telnet, terminal_type_is_asked_for_and_taken_in_small_letters)
{
    open();
    EXPECT_EQ(answer_to(command(WILL, TTYPE)), ASK_TYPE);
    EXPECT_EQ(answer_to(type_is("VT220-8bit")), "");
    EXPECT_STREQ(state.type, "vt220-8bit");
    EXPECT_TRUE(state.type_settled);
}

TEST_F(Telnet, unknown_types_are_asked_on_until_one_is_known)
{
    open();
    decode(command(WILL, TTYPE));
    EXPECT_EQ(answer_to(type_is("unheard-of")), ASK_TYPE);
    EXPECT_EQ(answer_to(type_is("vt100")), "");
    EXPECT_STREQ(state.type, "vt100");
}

TEST_F(Telnet, peer_without_a_known_type_is_asked_until_it_repeats_itself)
{
    open();
    decode(command(WILL, TTYPE));
    EXPECT_EQ(answer_to(type_is("one")), ASK_TYPE);
    EXPECT_EQ(answer_to(type_is("two")), ASK_TYPE);
    EXPECT_EQ(answer_to(type_is("two")), "");
    EXPECT_TRUE(state.type_settled);
    EXPECT_STREQ(state.type, "");
}

TEST_F(Telnet, peer_that_always_names_another_type_is_asked_eight_times)
{
    open();
    decode(command(WILL, TTYPE));
    for (int i = 1; i < 8; i++) {
        EXPECT_EQ(answer_to(type_is("t" + std::to_string(i))), ASK_TYPE);
    }
    EXPECT_EQ(answer_to(type_is("t8")), "");
    EXPECT_TRUE(state.type_settled);
    EXPECT_EQ(answer_to(type_is("t9")), "");
}

TEST_F(Telnet, type_that_is_no_plain_name_is_not_looked_for)
{
    const std::string longest(40, 'v');
    for (const std::string &name :
         {std::string("../../vt"), std::string("-vt"), std::string("vt 100"),
          std::string("vt\n"), std::string(""), longest + "v",
          std::string("vt\0x", 4), std::string("v\xc3\xa4")}) {
        state = {};
        state.known = [](const char *) {
            ADD_FAILURE() << "asked";
            return true;
        };
        open();
        decode(command(WILL, TTYPE));
        // It may have another one.
        EXPECT_EQ(answer_to(type_is(name)), ASK_TYPE);
        EXPECT_STREQ(state.type, "");
    }
    state = {};
    state.known = [](const char *) {
        return true;
    };
    open();
    decode(command(WILL, TTYPE) + type_is(longest));
    EXPECT_EQ(state.type, longest);
}

TEST_F(Telnet, program_may_start_when_both_are_told_or_refused)
{
    open();
    EXPECT_FALSE(telnet_settled(&state));
    decode(command(WONT, NAWS));
    EXPECT_FALSE(telnet_settled(&state));
    decode(command(WONT, TTYPE));
    EXPECT_TRUE(telnet_settled(&state));
}

TEST_F(Telnet, commands_type_what_the_terminal_has_for_them)
{
    EXPECT_EQ(decode({IAC, '\xf4', IAC, '\xf3', IAC, '\xf7', IAC, '\xf8'}),
              "\x03\x03\x7f\x15");
    state.interrupt = 0;
    EXPECT_EQ(decode({IAC, '\xf4'}), "");
}

TEST_F(Telnet, output_that_is_aborted_is_thrown_away_once)
{
    EXPECT_EQ(answer_to({IAC, '\xf5'}), std::string({IAC, '\xf2'}));
    EXPECT_EQ(encode("lost"), "");
    EXPECT_EQ(encode("kept"), "kept");
}

TEST_F(Telnet, answer_to_what_was_typed_since_the_abortion_is_kept)
{
    decode({IAC, '\xf5', 'x'});
    EXPECT_EQ(encode("kept"), "kept");
}

TEST_F(Telnet, peer_that_asks_whether_somebody_is_there_is_answered)
{
    EXPECT_EQ(answer_to({IAC, '\xf6'}), "\r\n[yes]\r\n");
}

TEST_F(Telnet, other_commands_ask_for_nothing)
{
    for (int code = 236; code < 250; code++) {
        if (code < 243 || code > 248) {
            EXPECT_EQ(answer_to({IAC, static_cast<char>(code)}), "") << code;
        }
    }
    EXPECT_EQ(answer_to({IAC, 'x'}), "");
}

TEST_F(Telnet, urgent_data_throws_away_what_comes_before_the_mark)
{
    telnet_urgent(&state);
    EXPECT_EQ(decode(std::string("lost") + IAC + '\xf4' + "lost"), "\x03");
    EXPECT_EQ(decode(std::string({IAC, '\xf2'}) + "kept"), "kept");
}

TEST_F(Telnet, what_was_edited_goes_with_the_text_before_the_mark)
{
    telnet_urgent(&state);
    EXPECT_EQ(decode({'l', IAC, '\xf7', IAC, '\xf8', IAC, '\xf2'}), "");
}

// An option, "is" and a name: one byte more is not even a bad name.
TEST_F(Telnet, subnegotiation_of_more_than_64_bytes_is_left_out)
{
    open();
    decode(command(WILL, TTYPE));
    EXPECT_EQ(answer_to(type_is(std::string(63, 'x'))), "");
    EXPECT_EQ(answer_to(type_is(std::string(62, 'x'))), ASK_TYPE);
    EXPECT_EQ(answer_to(type_is("vt" + std::string(5000, 'x'))), "");
    EXPECT_FALSE(state.type_settled);
    EXPECT_EQ(decode("a"), "a");
}

TEST_F(Telnet, subnegotiation_without_an_end_is_ended_by_a_command)
{
    open();
    decode(command(WILL, NAWS));
    EXPECT_EQ(
        answer_to(std::string({IAC, SB, NAWS, 0, 80}) + command(DO, BINARY)),
        command(WILL, BINARY));
    EXPECT_EQ(decode("a"), "a");
}

TEST_F(Telnet, negotiation_may_be_cut_anywhere)
{
    open();
    EXPECT_EQ(step(telnet_decode,
                   command(WILL, NAWS) + size_of(255, 50) +
                       command(WILL, TTYPE) + type_is("vt220") + "a",
                   1),
              "a");
    EXPECT_EQ(state.columns, 255);
    EXPECT_STREQ(state.type, "vt220");
    EXPECT_EQ(back, ASK_TYPE);
}

TEST_F(Telnet, nothing_is_taken_without_room_for_what_it_may_cause)
{
    const uint8_t in[] = "\xff\xf6";
    uint8_t out[TELNET_ROOM];
    kit_flow flow = {in, 2, out, sizeof out, out, TELNET_ROOM - 1};
    telnet_decode(&state, &flow);
    EXPECT_EQ(flow.in_left, 2u);
    flow.back_room = TELNET_ROOM;
    flow.out_room = TELNET_ROOM - 1;
    telnet_decode(&state, &flow);
    EXPECT_EQ(flow.in_left, 2u);
    telnet_encode(&state, &flow);
    EXPECT_EQ(flow.in_left, 2u);
}
