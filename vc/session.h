// The table of sessions: one slot per line.
#pragma once

#include <atomic>

#include <ttyline/vc.h>

// One running session. Belongs to the loop's thread, but for two fields that
// the SIGCHLD handler shares, on whatever thread it runs: see vc_child_pid()
// and vc_child_exited().
struct vc_child {
    int32_t ttyno;            // index of the slot
    std::atomic<int32_t> pid; // of the forked child; 0 until it is released
    std::atomic<bool> exited; // the child has been reaped
    int32_t sockfd;           // the connection; -1 once closed
    int32_t master_fd;        // the pseudo-terminal's master; -1 once closed
    int32_t inetd_fd;         // the inetd connection that the line came from
    int32_t in_pending;
    int32_t out_pending;
    bool watched; // was in the read set of the loop's current turn
    // Last, as it is large and every turn looks at what stands before it: that
    // lies close together in memory so. Copied; listen_path is shared with the
    // service.
    vc_reg reg;
};

extern std::atomic<vc_child *> g_vc_childs[TTY_LINES];

// The slot of a line, 0 to TTY_LINES - 1; null when it is empty.
inline vc_child *vc_child_at(int ttyno)
{
    return g_vc_childs[ttyno].load(std::memory_order_acquire);
}

// A bit per line, set while its slot is filled: the loop walks over the lines
// twice in each turn, and most of them are empty.
constexpr int VC_LINES_PER_WORD = 8 * sizeof(unsigned long);
constexpr int VC_LINE_WORDS =
    (TTY_LINES + VC_LINES_PER_WORD - 1) / VC_LINES_PER_WORD;
extern std::atomic<unsigned long> g_vc_child_lines[VC_LINE_WORDS];

// The first line from ttyno on that has a session; TTY_LINES when none has.
// For the thread that changes the table.
inline int vc_child_next(int ttyno)
{
    unsigned long wanted = ~0UL << (ttyno % VC_LINES_PER_WORD);

    for (int word = ttyno / VC_LINES_PER_WORD; word < VC_LINE_WORDS; word++) {
        const unsigned long lines =
            g_vc_child_lines[word].load(std::memory_order_relaxed) & wanted;
        if (lines != 0) {
            return word * VC_LINES_PER_WORD + __builtin_ctzl(lines);
        }
        wanted = ~0UL;
    }
    return TTY_LINES;
}

// The next line with a session, for a walk over all of them: the walk may end
// sessions. Lines stand close together more often than not.
inline int vc_child_after(int ttyno)
{
    ttyno++;
    return ttyno < TTY_LINES && vc_child_at(ttyno) != nullptr
               ? ttyno
               : vc_child_next(ttyno);
}

void vc_child_install(int ttyno, vc_child *child);

// Empties the slot of a session and frees its record. Waits for a SIGCHLD
// handler on another thread that may still look at it.
void vc_child_release(vc_child *child);

void vc_child_clear_all(void);

// The first session whose process is pid, or null. Async-signal-safe.
vc_child *vc_child_of_pid(int pid);

// The fields that the SIGCHLD handler shares with the loop.
int vc_child_pid(const vc_child *child);
void vc_child_set_pid(vc_child *child, int pid);
inline bool vc_child_exited(const vc_child *child)
{
    return child->exited.load(std::memory_order_relaxed);
}
void vc_child_set_exited(vc_child *child);

// Brackets a handler's use of the table: a record that it found stays
// allocated in between. Async-signal-safe.
void vc_child_table_enter(void);
void vc_child_table_leave(void);
