// The table of sessions and how the SIGCHLD handler may look into it.
//
// The handler runs on any thread of the daemon, also while the loop's thread
// frees a record. Slots are therefore atomic, a slot is emptied before its
// record is freed, and the free waits until no handler is at work. A handler
// that starts after that finds the slot empty; one on the loop's own thread
// has ended before the loop goes on, so the wait cannot lock itself out.
#include "vc/session.h"

#include <sched.h>
#include <stdlib.h>
#include <unistd.h>

std::atomic<vc_child *> g_vc_childs[TTY_LINES];
std::atomic<unsigned long> g_vc_child_lines[VC_LINE_WORDS];
static std::atomic<int> handlers_inside{0};

constexpr int LOOKS_BETWEEN_SLEEPS = 100;
constexpr useconds_t HANDLER_PAUSE_US = 1000;

static unsigned long bit_of(int ttyno)
{
    return 1UL << (ttyno % VC_LINES_PER_WORD);
}

void vc_child_install(int ttyno, vc_child *child)
{
    g_vc_childs[ttyno].store(child, std::memory_order_release);
    g_vc_child_lines[ttyno / VC_LINES_PER_WORD].fetch_or(bit_of(ttyno));
}

// A handler is done in no time, unless this thread keeps it from running: with
// a real-time priority on the only processor it would give way to nobody by
// yielding.
static void wait_for_handlers(void)
{
    // seldom covered: a handler on another thread during a release
    for (int looks = 1; handlers_inside.load() != 0; looks++) {
        if (looks % LOOKS_BETWEEN_SLEEPS == 0) {
            usleep(HANDLER_PAUSE_US);
        } else {
            sched_yield();
        }
    }
}

void vc_child_release(vc_child *child)
{
    const int ttyno = child->ttyno;

    g_vc_child_lines[ttyno / VC_LINES_PER_WORD].fetch_and(~bit_of(ttyno));
    g_vc_childs[ttyno].store(nullptr);
    wait_for_handlers();
    free(child);
}

void vc_child_clear_all(void)
{
    for (std::atomic<unsigned long> &lines : g_vc_child_lines) {
        lines.store(0);
    }
    for (std::atomic<vc_child *> &slot : g_vc_childs) {
        slot.store(nullptr);
    }
}

vc_child *vc_child_of_pid(int pid)
{
    for (std::atomic<vc_child *> &slot : g_vc_childs) {
        vc_child *child = slot.load();
        if (child != nullptr && vc_child_pid(child) == pid) {
            return child;
        }
    }
    return nullptr;
}

int vc_child_pid(const vc_child *child)
{
    return child->pid.load(std::memory_order_acquire);
}

// Everything else in the record must stand before the pid makes it findable.
void vc_child_set_pid(vc_child *child, int pid)
{
    child->pid.store(pid, std::memory_order_release);
}

void vc_child_set_exited(vc_child *child)
{
    child->exited.store(true, std::memory_order_relaxed);
}

void vc_child_table_enter(void)
{
    handlers_inside.fetch_add(1);
}

void vc_child_table_leave(void)
{
    handlers_inside.fetch_sub(1);
}
