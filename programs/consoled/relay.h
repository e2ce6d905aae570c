/*
 * relay: one direction of a session, from a connection to its terminal or
 * back. Bytes are neither lost nor reordered when either side is slow, and no
 * call waits longer than said here, because the thread that makes it serves
 * all other lines as well.
 *
 * The callbacks of a line consist of little more than relay_step() for each
 * direction and relay_drain() at the end. One thread of the process may use
 * relays; the process must ignore SIGPIPE, which the session service sees to.
 */
#ifndef TTYLINE_EXAMPLES_DAEMON_RELAY_H
#define TTYLINE_EXAMPLES_DAEMON_RELAY_H

#include <cstddef>
#include <cstdint>
#include <memory>

constexpr size_t relay_capacity = 16384;

/*
 * What was read and not yet written stands in bytes[start] to bytes[end - 1].
 * A relay has no buffer while nothing is pending, which is nearly always:
 * idle sessions cost next to nothing.
 */
struct relay {
    size_t start = 0;
    size_t end = 0;
    bool source_ended = false; /* end of file: nothing more will come */
    int source_error = 0;      /* errno of a read that failed for good, or 0 */
    int sink_error = 0;        /* errno of a write that failed for good, or 0 */
    int64_t give_up_at = 0;    /* an ended source on a stuck sink; else 0 */
    uint64_t progress_seen = 0; /* see relay_step() */
    std::unique_ptr<char[]> bytes;
};

inline size_t relay_pending(const relay &r)
{
    return r.end - r.start;
}

/*
 * Moves bytes from source to sink until one of them would block, the source
 * brings but a few, it has ended, an error is final, or max_bytes were read and
 * written together (it may become two buffers more). Never waits; leaves both
 * descriptors in non-blocking mode. Returns the bytes read plus the bytes
 * written: 0 says that neither side can do anything now.
 */
size_t relay_move(relay &r, int source, int sink, size_t max_bytes);

/*
 * The body of a read_func or write_func, with the result that they return:
 * the number of bytes pending, or -1 when the session is to end. That is when
 * the source has ended and the sink has taken the rest, or nothing for two
 * seconds, and when the sink has failed. errno is EAGAIN with any other
 * result. Waits for the sink when nothing can be moved, at most 5 ms.
 */
int relay_step(relay &r, int source, int sink);

/*
 * The body of a kill_func: moves what the source still has, at most 512 KiB,
 * waiting for a slow sink at most 200 ms in all, and not at all for the
 * source or for a sink that has failed.
 */
void relay_drain(relay &r, int source, int sink);

#endif
