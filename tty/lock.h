// The library's critical section: one recursive mutex per process, and all
// signals blocked in the thread that holds it.
#pragma once

// Makes the mutex usable in this process, also in a child that was forked
// while another thread of its parent held it. Retries for ever, reporting
// failures on the console.
void tty_lib_lock_init(void);

// Saves the calling thread's signal mask and blocks all signals; the saved
// mask is one per process, so both are called with the mutex held and never
// nested. Failures are logged and otherwise ignored.
void ttylib_set_sigproc(void);
void ttylib_unset_sigproc(void);

// The critical section as every operation takes it: the mutex first, then the
// mask; left in reverse order. The thread cannot be cancelled in between. Never
// nest it on one thread: the inner leave would restore, the outer one then
// leave every signal blocked.
void ttylib_enter(void);
void ttylib_leave(void);
