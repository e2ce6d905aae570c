// The telnet protocol between a connection and a terminal, RFC 854 and 855:
// functions on buffers that do no I/O, so that they can be tried with any
// bytes.
//
// This side echoes and sends without go-ahead, asks for the size and the type
// of the peer's terminal, and passes eight bits when the peer wants it. All
// else is refused, among it what has let somebody in elsewhere: an environment,
// line editing by the peer, authentication and encryption without either.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <ttyline/kit.h>

constexpr size_t TELNET_SUB_SIZE = 64; // of a subnegotiation; longer: ignored
constexpr size_t TELNET_TYPE_SIZE = 41;
constexpr size_t TELNET_OPTIONS = 256;
// A call may need so much room for one byte, in either direction.
constexpr size_t TELNET_ROOM = 16;

// Of an option on one side, by RFC 1143: an answer is never answered, so that
// both may ask at the same time. This side never asks for an end.
enum telnet_option : uint8_t { TELNET_OFF, TELNET_ON, TELNET_ASKED };

enum telnet_place : uint8_t {
    TELNET_DATA,
    TELNET_COMMAND, // behind IAC
    TELNET_VERB,    // behind WILL, WONT, DO or DONT
    TELNET_SUB,     // inside a subnegotiation
    TELNET_SUB_COMMAND
};

// Zeroed memory is a connection on which nothing was said.
struct telnet {
    telnet_option ours[TELNET_OPTIONS];
    telnet_option theirs[TELNET_OPTIONS];
    telnet_place place;
    uint8_t verb;
    uint8_t sub[TELNET_SUB_SIZE];
    size_t sub_length; // one more than fits: too long
    bool after_return; // the last byte from the peer was a carriage return
    bool owes_nul;     // the last one to the peer was
    bool discarding;   // from the peer, up to the next data mark
    bool aborting;     // to the peer, what is printed next

    // What the terminal has for them now; the caller's to set.
    uint8_t interrupt;
    uint8_t erase;
    uint8_t kill;
    // Whether the terminal database knows a type, in small letters.
    bool (*known)(const char *type);

    // What the peer has told. A size of 0 is not known.
    uint16_t columns;
    uint16_t rows;
    bool size_settled; // told, or refused
    char type[TELNET_TYPE_SIZE];
    bool type_settled;
    char offered[TELNET_TYPE_SIZE]; // the last type that the peer has named
    int types_offered;
};

// What is said first: fewer than 32 bytes to out.
void telnet_open(telnet *t, kit_flow *flow);

// From the peer to the terminal; answers go back to the peer.
void telnet_decode(telnet *t, kit_flow *flow);

// From the terminal to the peer.
void telnet_encode(telnet *t, kit_flow *flow);

// The peer has sent urgent data: what it has sent before the mark is to be
// thrown away, but for commands.
void telnet_urgent(telnet *t);

// Whether the peer has answered what a program should know before it starts.
inline bool telnet_settled(const telnet *t)
{
    return t->size_settled && t->type_settled;
}
