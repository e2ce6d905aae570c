#include "programs/telnetd/codec.h"

#include <cstring>
#include <termios.h>

#include "programs/telnetd/telnet.h"
#include "programs/telnetd/terminals.h"

// A person does not notice it; a client that says nothing costs it.
constexpr uint32_t TERMINAL_WAIT_MS = 500;
constexpr int COMMAND = 255;

struct session {
    telnet protocol;
    // What the terminal has been told.
    uint16_t columns;
    uint16_t rows;
    bool has_type;
};

static int open(void *state, kit_flow *flow, const kit_session *)
{
    auto *here = static_cast<session *>(state);

    here->protocol.known = terminal_known;
    telnet_open(&here->protocol, flow);
    return 0;
}

// Programs change them at any time; who only types does not need them.
static void look_at_characters(telnet *protocol, const kit_flow *flow)
{
    if (protocol->place == TELNET_DATA &&
        memchr(flow->in, COMMAND, flow->in_left) == nullptr) {
        return;
    }
    protocol->interrupt = kit_terminal_character(VINTR);
    protocol->erase = kit_terminal_character(VERASE);
    protocol->kill = kit_terminal_character(VKILL);
}

static void tell_terminal(session *here)
{
    const telnet &heard = here->protocol;

    if (heard.columns != here->columns || heard.rows != here->rows) {
        here->columns = heard.columns;
        here->rows = heard.rows;
        kit_terminal_size(here->columns, here->rows);
    }
    if (heard.type[0] != '\0' && !here->has_type) {
        here->has_type = true;
        kit_terminal_type(heard.type);
    }
}

static int decode(void *state, kit_flow *flow)
{
    auto *here = static_cast<session *>(state);

    look_at_characters(&here->protocol, flow);
    telnet_decode(&here->protocol, flow);
    tell_terminal(here);
    return 0;
}

static int encode(void *state, kit_flow *flow)
{
    telnet_encode(&static_cast<session *>(state)->protocol, flow);
    return 0;
}

static int ready(const void *state)
{
    return telnet_settled(&static_cast<const session *>(state)->protocol) ? 1
                                                                          : 0;
}

static void urgent(void *state)
{
    telnet_urgent(&static_cast<session *>(state)->protocol);
}

static kit_codec describe()
{
    kit_codec codec = {};

    codec.size = sizeof codec;
    codec.state_size = sizeof(session);
    codec.open = open;
    codec.decode = decode;
    codec.encode = encode;
    codec.ready = ready;
    codec.ready_ms = TERMINAL_WAIT_MS;
    codec.urgent = urgent;
    codec.plain_text = 1;
    return codec;
}

const kit_codec g_telnet_codec = describe();
