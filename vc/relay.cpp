// The relay steps: the bytes are moved by the service's callbacks; here it is
// only decided when they are called and what their result means.
//
// A step may tear its session down, and its callback may end any: after each
// the slot is looked at again, and no record is held on to from line to line.
#include "vc/relay.h"

#include <errno.h>
#include <string.h>

#include "vc/protocol.h"
#include "vc/teardown.h"

// Ends a session whose step has failed, unless the step has ended it itself.
static void end_failed(int ttyno, vc_child *child)
{
    if (vc_child_at(ttyno) == child) {
        vc_child_kill(child);
    }
}

int vc_indata_proc(vc_child *child)
{
    if (child == nullptr) {
        vc_debug_msg("vc: indata-proc, tel not found\r\n");
        return -1;
    }
    const int ttyno = child->ttyno;
    const int result = child->reg.read_func(ttyno);
    if (result < 0) {
        vc_debug_msg("vc: indata-proc, tel read fail, err:%s.\r\n",
                     strerror(errno));
        end_failed(ttyno, child);
        return -1;
    }
    return result;
}

int vc_outdata_proc(vc_child *child)
{
    if (child == nullptr) {
        vc_debug_msg("vc: outdata-proc, tel not found\r\n");
        return -1;
    }
    const int ttyno = child->ttyno;
    const int result = child->reg.write_func(ttyno);
    if (result < 0) {
        vc_debug_msg("vc: outdata-proc, tel write fail, err:%s.\r\n",
                     strerror(errno));
        end_failed(ttyno, child);
        return -1;
    }
    return result;
}

// One way of the data: the step that moves it, where the session keeps what it
// left over, and how the log calls the step and its repetition.
struct relay_way {
    int (*step)(vc_child *child);
    int32_t vc_child::*left;
    const char *name;
    const char *retry_name;
};

static const relay_way way_in = {vc_indata_proc, &vc_child::in_pending, "in",
                                 "in1"};
static const relay_way way_out = {vc_outdata_proc, &vc_child::out_pending,
                                  "out", "out1"};

// Notes what the step left over, in *pending too. Returns false when the
// session is gone or failed: its other way is not looked at then.
static bool relay(const relay_way *way, const char *name, vc_child *child,
                  bool *pending)
{
    const int ttyno = child->ttyno;
    const int result = way->step(child);

    // not covered: a step that fails has emptied the slot
    if (vc_child_at(ttyno) == nullptr || result < 0) {
        return false;
    }
    child->*(way->left) = result;
    if (result > 0) {
        vc_debug_msg("vc %s data ret %d.\r\n", name, result);
        *pending = true;
    }
    return true;
}

void relay_watch(read_set *set)
{
    for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
         ttyno = vc_child_after(ttyno)) {
        vc_child *child = vc_child_at(ttyno);
        if (vc_child_exited(child)) {
            vc_child_kill(child);
            continue;
        }
        // not covered: the teardown that closes a master empties the slot
        const bool watched = child->sockfd >= 0 && child->master_fd >= 0 &&
                             vc_protocol_of(child->reg.protocol)->relayed;
        // Each write, even of the same value, would copy a page that the record
        // shares with the forked children: all of them, in every turn.
        // cppcheck-suppress duplicateConditionalAssign
        if (child->watched != watched) {
            child->watched = watched;
        }
        if (watched) {
            read_set_watch(set, child->sockfd);
            read_set_watch(set, child->master_fd);
        }
    }
}

static bool take_readable(read_set *set, int fd)
{
    if (!read_set_has(set, fd)) {
        return false;
    }
    read_set_remove(set, fd);
    return true;
}

// A session that began in this turn is not looked at: its descriptors were not
// in the set, but a listener that another thread has closed meanwhile may have
// left their numbers there. Once as many as were ready have been taken no line
// has one left.
bool relay_readable(read_set *set, int ready)
{
    bool pending = false;

    for (int ttyno = vc_child_next(0); ttyno < TTY_LINES && ready > 0;
         ttyno = vc_child_after(ttyno)) {
        vc_child *child = vc_child_at(ttyno);
        if (!child->watched) {
            continue;
        }
        if (take_readable(set, child->sockfd)) {
            ready--;
            if (!relay(&way_in, way_in.name, child, &pending)) {
                continue;
            }
        }
        if (take_readable(set, child->master_fd)) {
            ready--;
            relay(&way_out, way_out.name, child, &pending);
        }
    }
    return pending;
}

bool relay_retry(void)
{
    bool pending = false;

    for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
         ttyno = vc_child_after(ttyno)) {
        vc_child *child = vc_child_at(ttyno);
        if (child->in_pending > 0 &&
            !relay(&way_in, way_in.retry_name, child, &pending)) {
            continue;
        }
        if (child->out_pending > 0) {
            relay(&way_out, way_out.retry_name, child, &pending);
        }
    }
    return pending;
}
