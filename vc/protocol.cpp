// The table of protocols, one row each; its place in the table is its number.
// vc(7) shows the same table, and a test compares the two.
#include "vc/protocol.h"

// clang-format off
static const vc_protocol protocols[VC_PROTOCOL_MAX + 1] = {
    // name, address, relayed, terminal type, label, TIPC port, partner, starts
    // closed, leaves SIGCHLD
    {"any",       ADDRESS_ANY,  true,   4, LABEL_KEPT,    0,  0, false, false},
    {"web",       ADDRESS_INET, true,   7, LABEL_WEB,     0,  1, false, false},
    {"web-alt",   ADDRESS_INET, true,   7, LABEL_WEB,     0,  2, false, false},
    {"tipc",      ADDRESS_TIPC, false,  4, LABEL_VTY,  4627,  3, false, false},
    {"telnet",    ADDRESS_INET, false,  4, LABEL_VTY,     0,  4, false, false},
    {"ssh",       ADDRESS_INET, false,  4, LABEL_VTY,     0, 11, false, false},
    {"tcp",       ADDRESS_INET, true,   4, LABEL_KEPT,    0,  6, false, false},
    {"local",     ADDRESS_PATH, true,   0, LABEL_INS,     0,  7, false, false},
    {"tipc-alt",  ADDRESS_TIPC, false, 11, LABEL_NULL, 2013,  8, false, false},
    {"local-web", ADDRESS_PATH, true,   7, LABEL_INS,     0,  9, false, false},
    {"in-path",   ADDRESS_PATH, true,   0, LABEL_INS,     0, 10, false, true},
    {"ssh-alt",   ADDRESS_INET, false,  4, LABEL_KEPT,    0,  5, true,  false},
};
// clang-format on

const vc_protocol *vc_protocol_of(uint32_t protocol)
{
    return protocol <= VC_PROTOCOL_MAX ? &protocols[protocol]
                                       : &protocols[VC_PROTOCOL_ANY];
}
