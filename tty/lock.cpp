// One mutex per process, made on first use and made again after a fork.
#include "tty/lock.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include <ttyline/tty.h>

#include "tty/console.h"

static pthread_mutex_t g_tty_lib_lock;
static std::atomic<unsigned char> tty_lib_lockable{0};
// The process that the mutex was made in, and the one that is making it. A
// child finds its parent's id in both and so starts afresh, whether or not
// the parent was in the middle of it.
static std::atomic<int> owner_pid{-1};
static std::atomic<int> initialising_pid{-1};
// The mask that the thread inside the critical section had before, and whether
// it could be cancelled.
static sigset_t saved_mask;
static int saved_cancel_state;

static bool lock_usable(int self)
{
    return tty_lib_lockable.load() == 1 && owner_pid.load() == self;
}

static bool make_lock(void)
{
    pthread_mutexattr_t attr;

    return pthread_mutexattr_init(&attr) == 0 &&
           pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 &&
           pthread_mutex_init(&g_tty_lib_lock, &attr) == 0;
}

void tty_lib_lock_init(void)
{
    const int self = getpid();

    while (!lock_usable(self)) {
        int other = initialising_pid.load();
        if (other == self ||
            // seldom covered: another thread between load and exchange
            !initialising_pid.compare_exchange_strong(other, self)) {
            // Another thread is at it; to make the mutex twice would free it
            // under the first one's feet.
            sched_yield();
            continue;
        }
        while (!make_lock()) {
            tty_log_msg("%s(line %d:pid %d:tid:%d): lock init err:%s\r\n",
                        "tty_lib_lock_init", __LINE__, self, gettid(),
                        strerror(errno));
        }
        tty_lib_lockable.store(1);
        owner_pid.store(self);
    }
}

void tty_lib_lock(void)
{
    tty_lib_lock_init();
    pthread_mutex_lock(&g_tty_lib_lock);
}

void tty_lib_unlock(void)
{
    pthread_mutex_unlock(&g_tty_lib_lock);
}

// pthread_sigmask() returns its error; the messages report errno.
static int change_mask(int how, const sigset_t *set, sigset_t *old)
{
    const int error = pthread_sigmask(how, set, old);

    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

static void log_mask_failure(const char *function, int line, const char *what)
{
    tty_debug_msg(0, "%s(line %d:pid %d:tid %d): %s fail errno:%d, %s\n",
                  function, line, getpid(), gettid(), what, errno,
                  strerror(errno));
}

// An operation goes on without a mask that it could not get: signals then
// interrupt its calls, which are repeated, and the log says why.
void ttylib_set_sigproc(void)
{
    sigset_t all;

    if (change_mask(SIG_BLOCK, nullptr, &saved_mask) != 0) {
        log_mask_failure("ttylib_set_sigproc", __LINE__, "sigprocmask");
        return;
    }
    if (sigfillset(&all) < 0) {
        log_mask_failure("ttylib_set_sigproc", __LINE__, "sigfillset");
        return;
    }
    if (change_mask(SIG_BLOCK, &all, nullptr) != 0) {
        log_mask_failure("ttylib_set_sigproc", __LINE__, "sigprocmask1");
    }
}

void ttylib_unset_sigproc(void)
{
    if (change_mask(SIG_SETMASK, &saved_mask, nullptr) != 0) {
        log_mask_failure("ttylib_unset_sigproc", __LINE__, "sig unset");
    }
}

// A thread that was cancelled in here, as it may be while it waits for a file's
// lock, would take the mutex with it.
void ttylib_enter(void)
{
    int cancel_state = 0;

    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    // Makes sure of the mutex itself.
    tty_lib_lock();
    saved_cancel_state = cancel_state;
    ttylib_set_sigproc();
}

void ttylib_leave(void)
{
    const int cancel_state = saved_cancel_state;

    ttylib_unset_sigproc();
    tty_lib_unlock();
    pthread_setcancelstate(cancel_state, nullptr);
}
