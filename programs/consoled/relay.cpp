#include "programs/consoled/relay.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <poll.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>
#include <utility>

/* After so much in one step the other lines get their turn. */
static constexpr size_t step_bytes = 4 * relay_capacity;
/*
 * A read that brings less is a keystroke or its echo, and has most likely
 * emptied the source: another one to make sure would be for nothing.
 */
static constexpr size_t bulk_bytes = 256;
static constexpr int step_wait_ms = 5;
static constexpr int64_t linger_ms = 2000;
static constexpr size_t drain_bytes = size_t{512} * 1024;
static constexpr int64_t drain_ms = 200;

/* The buffer that goes from one relay to the next; one of them may have it. */
static std::unique_ptr<char[]> g_spare;

/* Changes whenever some relay has moved bytes or has waited. */
static uint64_t g_progress;

static int64_t monotonic_ms()
{
    timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

static void set_nonblocking(int fd)
{
    int on = 1;

    ioctl(fd, FIONBIO, &on);
}

static void wait_writable(int fd, int milliseconds)
{
    pollfd watched = {fd, POLLOUT, 0};

    poll(&watched, 1, milliseconds);
}

/* 0 when the call may be repeated later, else the reason why not. */
static int final_error(int error)
{
    return error == EAGAIN || error == EINTR ? 0 : error;
}

static size_t flush(relay &r, int sink)
{
    size_t written = 0;

    while (relay_pending(r) > 0 && r.sink_error == 0) {
        ssize_t n = write(sink, &r.bytes[r.start], relay_pending(r));
        if (n < 0) {
            r.sink_error = final_error(errno);
            break;
        }
        r.start += static_cast<size_t>(n);
        written += static_cast<size_t>(n);
    }
    return written;
}

static void compact(relay &r)
{
    if (r.start > 0) {
        memmove(&r.bytes[0], &r.bytes[r.start], relay_pending(r));
        r.end -= r.start;
        r.start = 0;
    }
}

static bool take_buffer(relay &r)
{
    if (!r.bytes) {
        r.bytes = std::move(g_spare);
    }
    if (!r.bytes) {
        r.bytes.reset(new (std::nothrow) char[relay_capacity]);
    }
    return r.bytes != nullptr;
}

static void leave_buffer(relay &r)
{
    if (relay_pending(r) > 0) {
        return;
    }
    if (!g_spare) {
        g_spare = std::move(r.bytes);
    }
    r.bytes.reset();
}

static bool can_read(const relay &r)
{
    return !r.source_ended && r.source_error == 0 && r.end < relay_capacity;
}

static size_t read_once(relay &r, int source)
{
    ssize_t n = read(source, &r.bytes[r.end], relay_capacity - r.end);

    if (n < 0) {
        r.source_error = final_error(errno);
        return 0;
    }
    r.source_ended = n == 0;
    r.end += static_cast<size_t>(n);
    return static_cast<size_t>(n);
}

/*
 * A terminal gives its output in pieces of a page at most: they are put
 * together, as a call to the peer costs much more than one of these. A full
 * buffer leaves the source alone, so that its writer feels it.
 */
static size_t fill(relay &r, int source)
{
    size_t total = 0;
    size_t count = bulk_bytes;

    if (!take_buffer(r)) {
        r.source_error = ENOMEM;
        return 0;
    }
    compact(r);
    while (count >= bulk_bytes && can_read(r)) {
        count = read_once(r, source);
        total += count;
    }
    return total;
}

size_t relay_move(relay &r, int source, int sink, size_t max_bytes)
{
    set_nonblocking(source);
    set_nonblocking(sink);
    size_t moved = flush(r, sink);
    while (moved < max_bytes) {
        size_t got = fill(r, source);
        size_t written = flush(r, sink);
        moved += got + written;
        if (got < bulk_bytes) {
            break;
        }
    }
    leave_buffer(r);
    if (moved > 0) {
        g_progress++;
    }
    return moved;
}

/*
 * The service watches a source whether or not there is room for what it
 * brings, so while a buffer is full, or the source has ended, it comes back
 * at once, over and over. A wait keeps that from taking a whole processor.
 * It is made only when no relay has moved anything since this one was stuck
 * before: a loop with work to do is not held up, and of many stuck relays one
 * waits in each round and not all of them, one after the other.
 */
static void wait_when_all_are_stuck(relay &r, int sink)
{
    if (r.progress_seen == g_progress) {
        wait_writable(sink, step_wait_ms);
        g_progress++;
    }
    r.progress_seen = g_progress;
}

/* A source that is gone behind bytes for which there is no room. */
static bool hung_up(int source)
{
    pollfd watched = {source, POLLRDHUP, 0};

    return poll(&watched, 1, 0) > 0;
}

static bool lingered(relay &r)
{
    if (r.give_up_at == 0) {
        r.give_up_at = monotonic_ms() + linger_ms;
    }
    return monotonic_ms() >= r.give_up_at;
}

int relay_step(relay &r, int source, int sink)
{
    size_t moved = relay_move(r, source, sink, step_bytes);

    if (r.sink_error != 0) {
        return -1;
    }
    bool ended = r.source_ended || r.source_error != 0;
    if (ended && relay_pending(r) == 0) {
        return -1;
    }
    if (moved > 0) {
        r.give_up_at = 0;
    } else if (ended || relay_pending(r) == relay_capacity) {
        if ((ended || hung_up(source)) && lingered(r)) {
            return -1;
        }
        wait_when_all_are_stuck(r, sink);
    }
    /*
     * The service looks at errno when its wait times out, and leaves out the
     * step that is due when it finds EINTR or EBADF of some earlier call.
     */
    errno = EAGAIN;
    return static_cast<int>(relay_pending(r));
}

/*
 * What a program printed last is still in its terminal when its end is
 * noticed. Others that hold the terminal open may print for ever, and the
 * peer may have stopped reading: hence a bound for each.
 */
void relay_drain(relay &r, int source, int sink)
{
    int64_t deadline = monotonic_ms() + drain_ms;
    size_t total = 0;

    while (total < drain_bytes && r.sink_error == 0) {
        size_t moved = relay_move(r, source, sink, relay_capacity);
        total += moved;
        int64_t left = deadline - monotonic_ms();
        if (left <= 0 || (moved == 0 && relay_pending(r) == 0)) {
            break;
        }
        if (moved == 0) {
            wait_writable(sink, static_cast<int>(left));
        }
    }
}
