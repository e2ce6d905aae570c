// The buffers are static: a keeper has one relay, and pages that nothing was
// ever written to cost nothing.
#include "kit/relay.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "kit/terminal.h"

constexpr size_t BUFFER_SIZE = 8 * KIT_BUFFER_PAGE;
// A codec is called while it has so much room in both directions.
constexpr size_t CODEC_ROOM = 16;
// Left to the answers of the other direction, which must not stand still too.
constexpr size_t SPARE = 16 * CODEC_ROOM;
// A read that brings less has most likely emptied its source: another one to
// make sure would be for nothing.
constexpr size_t BULK = 512;
// After so many buffers one way the other one has its turn.
constexpr int MOST_STEPS = 4;

alignas(KIT_BUFFER_PAGE) static uint8_t g_bytes[4][BUFFER_SIZE];

static void set_nonblocking(int fd)
{
    int on = 1;

    ioctl(fd, FIONBIO, &on);
}

static void set_buffer(kit_buffer *buffer, int index)
{
    buffer->bytes = g_bytes[index];
    buffer->size = BUFFER_SIZE;
}

static void open_codec(kit_relay *relay, const kit_session *session)
{
    const kit_codec *codec = relay->codec;
    kit_flow flow = {};

    relay->state = calloc(1, codec->state_size + 1);
    if (relay->state == nullptr) {
        relay->peer_gone = true;
        return;
    }
    if (codec->open == nullptr) {
        return;
    }
    flow.out = relay->to_peer.bytes;
    flow.out_room = relay->to_peer.size;
    if (codec->open(relay->state, &flow, session) < 0) {
        relay->peer_gone = true;
    }
    relay->to_peer.end = relay->to_peer.size - flow.out_room;
}

void kit_relay_open(kit_relay *relay, int connection, int master,
                    const kit_codec *codec, const kit_session *session)
{
    relay->connection = connection;
    relay->master = master;
    relay->codec = codec;
    relay->last_was_newline = true;
    set_buffer(&relay->from_peer, 0);
    set_buffer(&relay->to_terminal, 1);
    set_buffer(&relay->from_terminal, 2);
    set_buffer(&relay->to_peer, 3);
    set_nonblocking(connection);
    set_nonblocking(master);
    kit_terminal_open(master);
    if (codec != nullptr) {
        open_codec(relay, session);
    }
}

// Where a side's bytes arrive: at the codec, or at once where they go to.
static kit_buffer *arriving_in(kit_relay *relay)
{
    return relay->codec != nullptr ? &relay->from_peer : &relay->to_terminal;
}

static kit_buffer *arriving_out(kit_relay *relay)
{
    return relay->codec != nullptr ? &relay->from_terminal : &relay->to_peer;
}

static bool retry_later(int error)
{
    return error == EAGAIN || error == EINTR;
}

// Reads from the peer until it has nothing more or there is no room.
static void read_peer(kit_relay *relay)
{
    kit_buffer *buffer = arriving_in(relay);

    kit_buffer_compact(buffer);
    while (!relay->peer_ended && !relay->peer_gone &&
           kit_buffer_room(buffer) > 0) {
        const ssize_t got = recv(relay->connection, buffer->bytes + buffer->end,
                                 kit_buffer_room(buffer), 0);
        if (got < 0) {
            relay->peer_gone = !retry_later(errno);
            return;
        }
        relay->moved = true;
        relay->peer_ended = got == 0;
        buffer->end += static_cast<size_t>(got);
        // Urgent data must be polled for before the read that takes it.
        if (static_cast<size_t>(got) < BULK || relay->hears_urgent) {
            return;
        }
    }
}

// A terminal gives at most a page at a time, which is put together with the
// next: a call to the peer costs more. Returns whether there may be more.
static bool read_terminal(kit_relay *relay)
{
    kit_buffer *buffer = arriving_out(relay);

    kit_buffer_compact(buffer);
    while (!relay->terminal_ended && kit_buffer_room(buffer) > 0) {
        const ssize_t got = read(relay->master, buffer->bytes + buffer->end,
                                 kit_buffer_room(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        // EIO says that nobody has the terminal open: a program may yet open
        // it again.
        relay->terminal_quiet = got < 0 && errno == EIO;
        if (got <= 0) {
            return false;
        }
        relay->moved = true;
        buffer->end += static_cast<size_t>(got);
        if (static_cast<size_t>(got) < BULK) {
            return false;
        }
    }
    return true;
}

static void write_peer(kit_relay *relay)
{
    kit_buffer *buffer = &relay->to_peer;

    while (kit_buffer_pending(buffer) > 0 && !relay->peer_gone) {
        const ssize_t sent =
            send(relay->connection, buffer->bytes + buffer->start,
                 kit_buffer_pending(buffer), MSG_NOSIGNAL);
        if (sent < 0) {
            relay->peer_gone = !retry_later(errno);
            return;
        }
        relay->moved = true;
        kit_buffer_used(buffer, static_cast<size_t>(sent));
    }
}

// Once: what it takes in part it will not take more of now.
static void write_terminal(kit_relay *relay)
{
    kit_buffer *buffer = &relay->to_terminal;
    const uint8_t *first = buffer->bytes + buffer->start;
    const size_t left = kit_buffer_pending(buffer);

    const ssize_t written = left > 0 ? write(relay->master, first, left) : 0;
    if (written > 0) {
        relay->moved = true;
        relay->last_was_newline = first[written - 1] == '\n';
        kit_buffer_used(buffer, static_cast<size_t>(written));
    }
}

// One call of the codec, from one buffer to another, with answers to a third
// one. Returns whether it did anything.
static bool translate(kit_relay *relay, int (*step)(void *, kit_flow *),
                      kit_buffer *in, kit_buffer *out, kit_buffer *back)
{
    kit_flow flow;

    kit_buffer_compact(out);
    kit_buffer_compact(back);
    if (kit_buffer_pending(in) == 0 ||
        kit_buffer_room(out) < CODEC_ROOM + SPARE ||
        kit_buffer_room(back) < CODEC_ROOM) {
        return false;
    }
    flow.in = in->bytes + in->start;
    flow.in_left = kit_buffer_pending(in);
    flow.out = out->bytes + out->end;
    flow.out_room = kit_buffer_room(out) - SPARE;
    flow.back = back->bytes + back->end;
    flow.back_room = kit_buffer_room(back);
    if (step(relay->state, &flow) < 0) {
        relay->peer_gone = true;
        return false;
    }
    const size_t taken = kit_buffer_pending(in) - flow.in_left;
    out->end = out->size - SPARE - flow.out_room;
    back->end = back->size - flow.back_room;
    kit_buffer_used(in, taken);
    return taken > 0;
}

static void decode(kit_relay *relay)
{
    if (relay->codec != nullptr) {
        while (translate(relay, relay->codec->decode, &relay->from_peer,
                         &relay->to_terminal, &relay->to_peer)) {
            write_terminal(relay);
        }
    }
}

static void encode(kit_relay *relay)
{
    if (relay->codec != nullptr) {
        while (translate(relay, relay->codec->encode, &relay->from_terminal,
                         &relay->to_peer, &relay->to_terminal)) {
            write_peer(relay);
        }
    }
}

// A peer that has ended behind bytes for which there is no room says so by
// POLLRDHUP, and would be seen by nothing else.
void kit_relay_want(kit_relay *relay, struct pollfd *connection,
                    struct pollfd *master)
{
    const kit_buffer *in = arriving_in(relay);
    const kit_buffer *out = arriving_out(relay);

    connection->fd = relay->peer_gone ? -1 : relay->connection;
    connection->events = 0;
    if (!relay->peer_ended) {
        connection->events |= relay->peer_ending ? 0 : POLLRDHUP;
        const bool has_room = kit_buffer_pending(in) < in->size;
        connection->events |= has_room ? POLLIN : 0;
        // It is reported until it was read, for which there may be no room.
        if (relay->hears_urgent && (has_room || !relay->urgent_noted)) {
            connection->events |= POLLPRI;
        }
    }
    if (kit_buffer_pending(&relay->to_peer) > 0) {
        connection->events |= POLLOUT;
    }
    master->fd =
        relay->terminal_ended || relay->terminal_quiet ? -1 : relay->master;
    master->events = 0;
    if (kit_buffer_pending(out) < out->size) {
        master->events |= POLLIN;
    }
    if (kit_buffer_pending(&relay->to_terminal) > 0) {
        master->events |= POLLOUT;
    }
    // A terminal that nobody has open is looked at by the clock: it would be
    // reported over and over.
    if (master->events == 0) {
        master->fd = -1;
    }
}

// An end of input with nothing read means that the peer takes nothing either:
// on a unix path, where both directions end at once.
static void look_for_end(kit_relay *relay, short happened)
{
    const bool full =
        kit_buffer_pending(arriving_in(relay)) == arriving_in(relay)->size;

    if ((happened & (POLLHUP | POLLERR)) != 0 && (full || relay->peer_ended)) {
        relay->peer_gone = true;
    }
    if ((happened & POLLRDHUP) != 0 && full) {
        relay->peer_ending = true;
    }
}

// What was sent before it may stand where the program reads nothing any more:
// it must not keep what comes from being understood, and typed.
static void note_urgent(kit_relay *relay)
{
    kit_buffer *typed = &relay->to_terminal;

    relay->codec->urgent(relay->state);
    // Once: an interrupt that it comes with may wait there already.
    if (!relay->urgent_noted &&
        (kit_buffer_pending(typed) > 0 || kit_terminal_has_unread())) {
        kit_buffer_used(typed, kit_buffer_pending(typed));
        kit_terminal_forget_typed();
    }
    relay->urgent_noted = true;
}

static void move_output(kit_relay *relay)
{
    bool more = true;

    for (int i = 0; i < MOST_STEPS && more; i++) {
        more = read_terminal(relay);
        encode(relay);
        write_peer(relay);
        more = more && kit_relay_delivered(relay);
    }
}

void kit_relay_move(kit_relay *relay, const struct pollfd *connection,
                    const struct pollfd *master)
{
    if ((connection->revents & POLLPRI) != 0) {
        note_urgent(relay);
    } else if ((connection->events & POLLPRI) != 0) {
        relay->urgent_noted = false;
    }
    if (connection->revents != 0) {
        write_peer(relay);
        if (!relay->hears_urgent || connection->revents != POLLOUT) {
            read_peer(relay);
        }
        look_for_end(relay, connection->revents);
    }
    decode(relay);
    // What waits for room in the terminal is tried again when there is some.
    if (master->fd < 0 || (master->events & ~master->revents & POLLOUT) == 0) {
        write_terminal(relay);
    }
    // A read would say the same, but there may be no room for one.
    relay->terminal_quiet =
        relay->terminal_quiet || (master->revents & POLLHUP) != 0;
    if ((master->revents & ~POLLOUT) != 0 || relay->terminal_quiet) {
        move_output(relay);
    }
    // What a codec could not translate for want of room, and its answers.
    if (relay->codec != nullptr) {
        encode(relay);
        write_peer(relay);
        write_terminal(relay);
    }
}

void kit_relay_finish_terminal(kit_relay *relay)
{
    kit_buffer *buffer = arriving_out(relay);

    while (!relay->terminal_ended && !relay->peer_gone) {
        kit_buffer_compact(buffer);
        if (kit_buffer_room(buffer) == 0) {
            return;
        }
        const ssize_t got = read(relay->master, buffer->bytes + buffer->end,
                                 kit_buffer_room(buffer));
        if (got <= 0) {
            relay->terminal_ended = got == 0 || errno != EINTR;
            continue;
        }
        relay->moved = true;
        buffer->end += static_cast<size_t>(got);
        encode(relay);
        write_peer(relay);
    }
}

// What stands on an unfinished line is handed over by the first of two.
bool kit_relay_type_end(kit_relay *relay)
{
    struct termios modes;
    char typed[2];

    if (kit_buffer_pending(&relay->to_terminal) > 0 ||
        kit_buffer_pending(&relay->from_peer) > 0 ||
        tcgetattr(relay->master, &modes) != 0) {
        return false;
    }
    memset(typed, modes.c_cc[VEOF], sizeof typed);
    const ssize_t ignored =
        write(relay->master, typed, relay->last_was_newline ? 1 : 2);
    static_cast<void>(ignored);
    relay->last_was_newline = true;
    return true;
}

void kit_relay_say(kit_relay *relay, const char *text)
{
    kit_buffer *buffer = arriving_out(relay);
    const size_t length = strlen(text);

    kit_buffer_compact(buffer);
    const size_t count =
        length < kit_buffer_room(buffer) ? length : kit_buffer_room(buffer);
    memcpy(buffer->bytes + buffer->end, text, count);
    buffer->end += count;
    encode(relay);
    write_peer(relay);
}
