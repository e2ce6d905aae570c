#include "vc/protocol.h"

#include <stdint.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

// The protocols of which is(row, number) holds.
static std::vector<uint32_t> protocols_with(bool (*is)(const vc_protocol *,
                                                       uint32_t))
{
    std::vector<uint32_t> found;

    for (uint32_t number = 0; number <= 11; number++) {
        if (is(vc_protocol_of(number), number)) {
            found.push_back(number);
        }
    }
    return found;
}

using numbers = std::vector<uint32_t>;

TEST(ProtocolTest, each_protocol_has_its_kind_of_address)
{
    const address_kind expected[] = {ADDRESS_ANY,  ADDRESS_INET, ADDRESS_INET,
                                     ADDRESS_TIPC, ADDRESS_INET, ADDRESS_INET,
                                     ADDRESS_INET, ADDRESS_PATH, ADDRESS_TIPC,
                                     ADDRESS_PATH, ADDRESS_PATH, ADDRESS_INET};
    for (uint32_t number = 0; number <= 11; number++) {
        EXPECT_EQ(vc_protocol_of(number)->address, expected[number]) << number;
    }
}

TEST(ProtocolTest, programs_of_3_4_5_8_and_11_use_their_connection_themselves)
{
    EXPECT_EQ(protocols_with([](const vc_protocol *row, uint32_t) {
                  return !row->relayed;
              }),
              (numbers{3, 4, 5, 8, 11}));
}

TEST(ProtocolTest, each_protocol_has_its_type_of_terminal)
{
    const int expected[] = {4, 7, 7, 4, 4, 4, 4, 0, 11, 7, 0, 4};
    for (uint32_t number = 0; number <= 11; number++) {
        EXPECT_EQ(vc_protocol_of(number)->terminal_type, expected[number])
            << number;
    }
}

TEST(ProtocolTest, each_protocol_has_its_label)
{
    const peer_label expected[] = {
        LABEL_KEPT, LABEL_WEB, LABEL_WEB,  LABEL_VTY, LABEL_VTY, LABEL_VTY,
        LABEL_KEPT, LABEL_INS, LABEL_NULL, LABEL_INS, LABEL_INS, LABEL_KEPT};
    for (uint32_t number = 0; number <= 11; number++) {
        EXPECT_EQ(vc_protocol_of(number)->label, expected[number]) << number;
    }
}

TEST(ProtocolTest, the_tipc_protocols_alone_have_fixed_ports)
{
    EXPECT_EQ(vc_protocol_of(3)->tipc_port, 4627);
    EXPECT_EQ(vc_protocol_of(8)->tipc_port, 2013);
    EXPECT_EQ(protocols_with([](const vc_protocol *row, uint32_t) {
                  return row->tipc_port != 0;
              }),
              (numbers{3, 8}));
}

TEST(ProtocolTest, protocols_5_and_11_are_partners_and_no_others)
{
    EXPECT_EQ(vc_protocol_of(5)->partner, 11u);
    EXPECT_EQ(vc_protocol_of(11)->partner, 5u);
    EXPECT_EQ(protocols_with([](const vc_protocol *row, uint32_t number) {
                  return row->partner != number;
              }),
              (numbers{5, 11}));
}

TEST(ProtocolTest, protocol_11_alone_starts_closed)
{
    EXPECT_EQ(protocols_with([](const vc_protocol *row, uint32_t) {
                  return row->starts_closed;
              }),
              (numbers{11}));
}

TEST(ProtocolTest, protocol_10_alone_leaves_sigchld)
{
    EXPECT_EQ(protocols_with([](const vc_protocol *row, uint32_t) {
                  return row->leaves_sigchld;
              }),
              (numbers{10}));
}

TEST(ProtocolTest, a_number_that_is_no_protocol_is_treated_as_0)
{
    for (const uint32_t number : {12u, 255u, 0x7fffffffu, 0xffffffffu}) {
        EXPECT_EQ(vc_protocol_of(number), vc_protocol_of(0)) << number;
    }
}

TEST(ProtocolTest, the_constants_are_the_numbers_of_their_rows)
{
    const struct {
        uint32_t number;
        const char *name;
    } constants[] = {{VC_PROTOCOL_ANY, "any"},
                     {VC_PROTOCOL_WEB, "web"},
                     {VC_PROTOCOL_WEB_ALT, "web-alt"},
                     {VC_PROTOCOL_TIPC, "tipc"},
                     {VC_PROTOCOL_TELNET, "telnet"},
                     {VC_PROTOCOL_SSH, "ssh"},
                     {VC_PROTOCOL_TCP, "tcp"},
                     {VC_PROTOCOL_LOCAL, "local"},
                     {VC_PROTOCOL_TIPC_ALT, "tipc-alt"},
                     {VC_PROTOCOL_LOCAL_WEB, "local-web"},
                     {VC_PROTOCOL_IN_PATH, "in-path"},
                     {VC_PROTOCOL_SSH_ALT, "ssh-alt"}};
    for (const auto &constant : constants) {
        EXPECT_STREQ(vc_protocol_of(constant.number)->name, constant.name);
    }
    EXPECT_EQ(VC_PROTOCOL_MAX, VC_PROTOCOL_SSH_ALT);
}

TEST(LineTest, lines_are_0_to_1585)
{
    EXPECT_TRUE(vc_line_valid(0));
    EXPECT_TRUE(vc_line_valid(1585));
    for (const int ttyno : {-1, 1586, -2147483647 - 1, 2147483647}) {
        EXPECT_FALSE(vc_line_valid(ttyno)) << ttyno;
    }
}

TEST(LineTest, sessions_run_on_258_to_1148_and_1421_to_1585)
{
    for (int ttyno = -1; ttyno <= 1586; ttyno++) {
        EXPECT_EQ(vc_line_carries_sessions(ttyno),
                  (ttyno >= 258 && ttyno <= 1148) ||
                      (ttyno >= 1421 && ttyno <= 1585))
            << ttyno;
    }
}

TEST(LineTest, virtual_terminals_are_258_to_321)
{
    for (int ttyno = -1; ttyno <= 1586; ttyno++) {
        EXPECT_EQ(vc_line_clearable(ttyno), ttyno >= 258 && ttyno <= 321)
            << ttyno;
    }
    EXPECT_EQ(vc_line_vty_number(258), 0);
    EXPECT_EQ(vc_line_vty_number(321), 63);
    EXPECT_EQ(vc_line_vty_number(0), -258);
}
