#include "programs/telnetd/telnet.h"

#include <ctype.h>
#include <string.h>

enum : uint8_t {
    SE = 240,
    DM = 242, // data mark
    BRK = 243,
    IP = 244, // interrupt process
    AO = 245, // abort output
    AYT = 246,
    EC = 247, // erase character
    EL = 248, // erase line
    SB = 250,
    WILL = 251,
    WONT = 252,
    DO = 253,
    DONT = 254,
    IAC = 255
};

enum : uint8_t { BINARY = 0, ECHO = 1, SGA = 3, TTYPE = 24, NAWS = 31 };
enum : uint8_t { TTYPE_IS = 0, TTYPE_SEND = 1 };

constexpr uint16_t MOST_CELLS = 4095;
// A peer that has more names than that is asked no further.
constexpr int MOST_TYPES = 8;

static void put(uint8_t **to, size_t *room, const void *bytes, size_t length)
{
    if (length <= *room) {
        memcpy(*to, bytes, length);
        *to += length;
        *room -= length;
    }
}

static void put_out(kit_flow *flow, uint8_t byte)
{
    put(&flow->out, &flow->out_room, &byte, 1);
}

static void answer(kit_flow *flow, uint8_t verb, uint8_t option)
{
    const uint8_t bytes[] = {IAC, verb, option};

    put(&flow->back, &flow->back_room, bytes, sizeof bytes);
}

static bool we_may(uint8_t option)
{
    return option == ECHO || option == SGA || option == BINARY;
}

static bool they_may(uint8_t option)
{
    return option == SGA || option == BINARY || option == NAWS ||
           option == TTYPE;
}

static void ask_for_type(kit_flow *flow)
{
    static const uint8_t REQUEST[] = {IAC, SB, TTYPE, TTYPE_SEND, IAC, SE};

    put(&flow->back, &flow->back_room, REQUEST, sizeof REQUEST);
}

// The other side wants an option to be on: ours (DO) or its own (WILL).
static void heard_on(telnet *t, kit_flow *flow, uint8_t option)
{
    const bool own = t->verb == DO;
    telnet_option *state = own ? &t->ours[option] : &t->theirs[option];
    const telnet_option before = *state;

    if (before == TELNET_OFF) {
        if (!(own ? we_may(option) : they_may(option))) {
            answer(flow, own ? WONT : DONT, option);
            return;
        }
        answer(flow, own ? WILL : DO, option);
    }
    *state = TELNET_ON;
    if (!own && option == TTYPE && before != TELNET_ON) {
        ask_for_type(flow);
    }
}

static void heard_off(telnet *t, kit_flow *flow, uint8_t option)
{
    const bool own = t->verb == DONT;
    telnet_option *state = own ? &t->ours[option] : &t->theirs[option];

    if (*state == TELNET_ON) {
        answer(flow, own ? WONT : DONT, option);
    }
    *state = TELNET_OFF;
    t->size_settled = t->size_settled || (!own && option == NAWS);
    t->type_settled = t->type_settled || (!own && option == TTYPE);
}

// Sizes that no terminal has are not told to programs, which divide by them.
static void heard_size(telnet *t)
{
    const unsigned columns = t->sub[1] * 256U + t->sub[2];
    const unsigned rows = t->sub[3] * 256U + t->sub[4];

    if (t->sub_length != 5 || t->theirs[NAWS] != TELNET_ON) {
        return;
    }
    t->size_settled = true;
    if (columns >= 1 && columns <= MOST_CELLS && rows >= 1 &&
        rows <= MOST_CELLS) {
        t->columns = static_cast<uint16_t>(columns);
        t->rows = static_cast<uint16_t>(rows);
    }
}

// It becomes a part of file names: a plain name, and no path.
static bool take_name(char *name, const uint8_t *bytes, size_t length)
{
    if (length == 0 || length >= TELNET_TYPE_SIZE || !isalnum(bytes[0])) {
        return false;
    }
    for (size_t i = 0; i < length; i++) {
        if (!isalnum(bytes[i]) && bytes[i] != '+' && bytes[i] != '-' &&
            bytes[i] != '.' && bytes[i] != '_') {
            return false;
        }
    }
    for (size_t i = 0; i < length; i++) {
        name[i] = static_cast<char>(tolower(bytes[i]));
    }
    return true;
}

// A peer names its types one after the other, and the last one twice, RFC 1091.
static void heard_type(telnet *t, kit_flow *flow)
{
    char name[TELNET_TYPE_SIZE] = "";

    if (t->sub_length < 2 || t->sub[1] != TTYPE_IS || t->type_settled ||
        t->theirs[TTYPE] != TELNET_ON) {
        return;
    }
    if (take_name(name, t->sub + 2, t->sub_length - 2) && t->known(name)) {
        memcpy(t->type, name, sizeof name);
        t->type_settled = true;
        return;
    }
    const bool again = t->types_offered > 0 && strcmp(name, t->offered) == 0;
    t->types_offered++;
    if (again || t->types_offered == MOST_TYPES) {
        t->type_settled = true;
        return;
    }
    memcpy(t->offered, name, sizeof name);
    ask_for_type(flow);
}

static void end_sub(telnet *t, kit_flow *flow)
{
    t->place = TELNET_DATA;
    if (t->sub_length == 0 || t->sub_length > TELNET_SUB_SIZE) {
        return;
    }
    if (t->sub[0] == NAWS) {
        heard_size(t);
    } else if (t->sub[0] == TTYPE) {
        heard_type(t, flow);
    }
}

static void add_to_sub(telnet *t, uint8_t byte)
{
    t->place = TELNET_SUB;
    if (t->sub_length < TELNET_SUB_SIZE) {
        t->sub[t->sub_length] = byte;
    }
    t->sub_length += t->sub_length <= TELNET_SUB_SIZE ? 1 : 0;
}

// What the user would type for it; a terminal that has none has 0.
static void type_special(kit_flow *flow, uint8_t character)
{
    if (character != 0) {
        put_out(flow, character);
    }
}

// These stand for characters that were typed and go with them.
static void edit(const telnet *t, kit_flow *flow, uint8_t character)
{
    if (!t->discarding) {
        type_special(flow, character);
    }
}

// The mark tells the peer where the output that it does not want has ended.
static void abort_output(telnet *t, kit_flow *flow)
{
    static const uint8_t MARK[] = {IAC, DM};

    t->aborting = true;
    put(&flow->back, &flow->back_room, MARK, sizeof MARK);
}

static void heard_command(telnet *t, kit_flow *flow, uint8_t command)
{
    static const char HERE[] = "\r\n[yes]\r\n";

    t->place = TELNET_DATA;
    switch (command) {
    case WILL:
    case WONT:
    case DO:
    case DONT:
        t->verb = command;
        t->place = TELNET_VERB;
        break;
    case SB:
        t->sub_length = 0;
        t->place = TELNET_SUB;
        break;
    case DM:
        t->discarding = false;
        break;
    case IP:
    case BRK:
        type_special(flow, t->interrupt);
        break;
    case EC:
        edit(t, flow, t->erase);
        break;
    case EL:
        edit(t, flow, t->kill);
        break;
    case AO:
        abort_output(t, flow);
        break;
    case AYT:
        put(&flow->back, &flow->back_room, HERE, sizeof HERE - 1);
        break;
    default: // what asks for nothing, or is not known
        break;
    }
}

// The end of a line comes as a carriage return with a line feed or a NUL behind
// it; a terminal wants the return alone. With eight bits it is as it comes.
static void heard_data(telnet *t, kit_flow *flow, uint8_t byte)
{
    const bool second = t->after_return && (byte == '\n' || byte == '\0');

    t->after_return = byte == '\r' && t->theirs[BINARY] != TELNET_ON;
    if (!second && !t->discarding) {
        // Its answer is wanted.
        t->aborting = false;
        put_out(flow, byte);
    }
}

static void heard_byte(telnet *t, kit_flow *flow, uint8_t byte)
{
    switch (t->place) {
    case TELNET_DATA:
        if (byte == IAC) {
            t->place = TELNET_COMMAND;
        } else {
            heard_data(t, flow, byte);
        }
        break;
    case TELNET_COMMAND:
        if (byte == IAC) {
            t->place = TELNET_DATA;
            heard_data(t, flow, byte);
        } else {
            heard_command(t, flow, byte);
        }
        break;
    case TELNET_VERB:
        t->place = TELNET_DATA;
        if (t->verb == WILL || t->verb == DO) {
            heard_on(t, flow, byte);
        } else {
            heard_off(t, flow, byte);
        }
        break;
    case TELNET_SUB:
        if (byte == IAC) {
            t->place = TELNET_SUB_COMMAND;
        } else {
            add_to_sub(t, byte);
        }
        break;
    case TELNET_SUB_COMMAND:
        if (byte == IAC) {
            add_to_sub(t, byte);
        } else if (byte == SE) {
            end_sub(t, flow);
        } else {
            // The end was forgotten: this is a command of its own.
            heard_command(t, flow, byte);
        }
        break;
    }
}

void telnet_open(telnet *t, kit_flow *flow)
{
    static const uint8_t SAID[] = {IAC, WILL, ECHO, IAC,  WILL, SGA, IAC,  DO,
                                   SGA, IAC,  DO,   NAWS, IAC,  DO,  TTYPE};

    t->ours[ECHO] = t->ours[SGA] = TELNET_ASKED;
    t->theirs[SGA] = t->theirs[NAWS] = t->theirs[TTYPE] = TELNET_ASKED;
    put(&flow->out, &flow->out_room, SAID, sizeof SAID);
}

void telnet_decode(telnet *t, kit_flow *flow)
{
    while (flow->in_left > 0 && flow->out_room >= TELNET_ROOM &&
           flow->back_room >= TELNET_ROOM) {
        const uint8_t byte = *flow->in++;
        flow->in_left--;
        heard_byte(t, flow, byte);
    }
}

// A carriage return that no line feed follows has a NUL behind it.
static void say_byte(telnet *t, kit_flow *flow, uint8_t byte)
{
    if (t->owes_nul && byte != '\n') {
        put_out(flow, '\0');
    }
    t->owes_nul = byte == '\r' && t->ours[BINARY] != TELNET_ON;
    if (byte == IAC) {
        put_out(flow, IAC);
    }
    put_out(flow, byte);
}

void telnet_encode(telnet *t, kit_flow *flow)
{
    if (t->aborting) {
        t->aborting = false;
        flow->in += flow->in_left;
        flow->in_left = 0;
    }
    while (flow->in_left > 0 && flow->out_room >= TELNET_ROOM) {
        const uint8_t byte = *flow->in++;
        flow->in_left--;
        say_byte(t, flow, byte);
    }
}

void telnet_urgent(telnet *t)
{
    t->discarding = true;
}
