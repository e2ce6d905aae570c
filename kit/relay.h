// The data of one session, in its keeper: two ways between the connection and
// the terminal, each with a bounded buffer, and the codec between them.
#pragma once

#include <poll.h>

#include <ttyline/kit.h>

#include "kit/buffer.h"

struct kit_relay {
    int connection;
    int master;
    const kit_codec *codec;
    void *state;
    kit_buffer from_peer; // not decoded yet; unused without a codec
    kit_buffer to_terminal;
    kit_buffer from_terminal; // not encoded yet; unused without a codec
    kit_buffer to_peer;
    bool peer_ending;    // it sends no more, but there is more to read
    bool peer_ended;     // it sends no more, and all of it was read
    bool peer_gone;      // it takes no more either
    bool terminal_ended; // all output of the program has been read
    bool terminal_quiet; // nobody has it open just now
    bool last_was_newline;
    bool hears_urgent; // the connection has urgent data, and the codec wants
                       // it; the keeper's to set
    bool urgent_noted; // the codec knows of that which is still to be read
    bool moved;        // something has moved since this was last cleared
};

// Takes both descriptors, which become non-blocking. One relay a process.
void kit_relay_open(kit_relay *relay, int connection, int master,
                    const kit_codec *codec, const kit_session *session);

// What each side has to be polled for, for the descriptors of two pollfds.
void kit_relay_want(kit_relay *relay, struct pollfd *connection,
                    struct pollfd *master);

// Moves what the poll has found, as far as there is room.
void kit_relay_move(kit_relay *relay, const struct pollfd *connection,
                    const struct pollfd *master);

// The rest of the terminal's output, once its program has ended: what cannot be
// read now will never come.
void kit_relay_finish_terminal(kit_relay *relay);

// Types the terminal's end-of-file character, for a peer that sends no more.
// False while something else is still to be typed.
bool kit_relay_type_end(kit_relay *relay);

// Appends text for the peer, as far as there is room, and sends what it takes.
void kit_relay_say(kit_relay *relay, const char *text);

// Whether all that the program has printed is with the peer's system.
inline bool kit_relay_delivered(const kit_relay *relay)
{
    return kit_buffer_pending(&relay->from_terminal) == 0 &&
           kit_buffer_pending(&relay->to_peer) == 0;
}

// Whether it holds memory that it would not need if nothing moved.
inline bool kit_relay_large(const kit_relay *relay)
{
    return kit_buffer_large(&relay->from_peer) ||
           kit_buffer_large(&relay->to_terminal) ||
           kit_buffer_large(&relay->from_terminal) ||
           kit_buffer_large(&relay->to_peer);
}

// Gives that back.
inline void kit_relay_rest(kit_relay *relay)
{
    kit_buffer_rest(&relay->from_peer);
    kit_buffer_rest(&relay->to_terminal);
    kit_buffer_rest(&relay->from_terminal);
    kit_buffer_rest(&relay->to_peer);
}
