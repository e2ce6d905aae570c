// What a killed or confined keeper leaves behind: its line, which says whose it
// was, and what still runs of its session.
#include "kit/leftover.h"

#include <string.h>

#include "kit/clock.h"
#include "kit/line.h"
#include "kit/sweep.h"

// From the end of the keeper, which hung its program up, and of what that has
// left, to the end by force of what did not care.
constexpr int64_t SWEEP_AFTER_MS = 5000;
// How often a line that another program locks is tried again, and for how long.
constexpr int64_t LOCKED_PAUSE_MS = 1000;
constexpr int MOST_TRIES = 60;

// One session. With the lock held.
// The analyser takes the copy of a whole record for one onto itself.
// NOLINTNEXTLINE(clang-analyzer-alpha.unix.cstring.BufferOverlap)
struct leftover {
    bool used;
    int line;
    char id[KIT_ID_SIZE];
    pid_t program;
    int64_t clean_at; // 0: done
    bool hung_up;
    int64_t sweep_at; // 0: done
    int tries;
};
static leftover g_leftovers[TTY_LINES];
static int g_leftover_count;

// From the slot of the line's number on: a session that ends takes the place of
// the one before it on its line, but not while that one's programs still have
// to be ended. Only with more of those than lines the line's last is forgotten.
static leftover *place_on(int line)
{
    for (int i = 0; i < TTY_LINES; i++) {
        leftover *place = &g_leftovers[(line + i) % TTY_LINES];
        if (!place->used || (place->line == line && place->sweep_at == 0)) {
            return place;
        }
    }
    return &g_leftovers[line];
}

void kit_leftover_add(const kit_entry *entry)
{
    kit_lock();
    leftover *left = place_on(entry->session.line);
    g_leftover_count += left->used ? 0 : 1;
    left->used = true;
    left->line = entry->session.line;
    memcpy(left->id, entry->id, sizeof left->id);
    left->program = entry->program;
    left->clean_at = kit_now_ms();
    left->hung_up = entry->empty;
    left->sweep_at = entry->empty || left->program <= 0 ? 0 : kit_now_ms();
    left->tries = 0;
    kit_unlock();
}

static void clean_line(leftover *left, int64_t now)
{
    if (left->clean_at == 0 || left->clean_at > now) {
        return;
    }
    // Without waiting: the lock is held only for this one line's moment.
    const bool done = kit_line_end(left->line, left->id, 0) == 0;
    left->clean_at =
        done || ++left->tries == MOST_TRIES ? 0 : now + LOCKED_PAUSE_MS;
}

static void sweep_session(leftover *left, int64_t now)
{
    if (left->sweep_at == 0 || left->sweep_at > now) {
        return;
    }
    if (!left->hung_up) {
        left->hung_up = true;
        left->sweep_at =
            kit_sweep_hang_up(left->program) ? now + SWEEP_AFTER_MS : 0;
        return;
    }
    // It was hung up long ago: no further time.
    kit_sweep(left->program, 0);
    left->sweep_at = 0;
}

// Works on a copy: neither a file nor a look at all processes holds the loop
// up. A session of the line that ends meanwhile may have taken its place, and
// then this one is forgotten.
static int64_t tidy_place(int place, int64_t now)
{
    kit_lock();
    leftover left = g_leftovers[place];
    kit_unlock();
    if (!left.used) {
        return 0;
    }
    clean_line(&left, now);
    sweep_session(&left, now);
    left.used = left.clean_at != 0 || left.sweep_at != 0;
    kit_lock();
    if (memcmp(g_leftovers[place].id, left.id, sizeof left.id) == 0) {
        g_leftovers[place] = left;
        g_leftover_count -= left.used ? 0 : 1;
    }
    kit_unlock();
    if (!left.used) {
        return 0;
    }
    if (left.clean_at == 0 ||
        (left.sweep_at != 0 && left.sweep_at < left.clean_at)) {
        return left.sweep_at;
    }
    return left.clean_at;
}

int64_t kit_leftover_tidy(int64_t now)
{
    int64_t next = 0;

    kit_lock();
    const bool any = g_leftover_count > 0;
    kit_unlock();
    for (int place = 0; any && place < TTY_LINES; place++) {
        next = kit_earlier(next, tidy_place(place, now));
    }
    return next;
}

// What keepers that were killed, or that will be with the daemon, have left.
void kit_leftover_end(int64_t now)
{
    kit_leftover_tidy(now);
    for (int line = 0; line < TTY_LINES; line++) {
        char id[KIT_ID_SIZE] = "";
        kit_lock();
        const kit_entry *entry = kit_entry_at(line);
        if (entry != nullptr) {
            memcpy(id, entry->id, sizeof id);
        }
        kit_unlock();
        if (id[0] != '\0') {
            kit_line_end(line, id, 0);
        }
    }
}
