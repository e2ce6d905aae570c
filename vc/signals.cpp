// Signal dispositions, and the ends of session processes.
//
// The handlers are installed with sigaction() and neither restart system calls
// nor fall back to the default: with a one-shot disposition a second SIGHUP
// that comes before the handler has installed itself again ends the daemon.
// They install themselves again all the same, in case somebody took the
// disposition away meanwhile.
#include "vc/signals.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>

#include "vc/session.h"
#include "vc/teardown.h"

static void set_disposition(int signo, void (*handler)(int))
{
    struct sigaction action = {};

    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signo, &action, nullptr);
}

void vc_init_sigchld(bool reap_children)
{
    if (reap_children) {
        set_disposition(SIGCHLD, vc_handle_sigchld);
    }
    set_disposition(SIGHUP, vc_handle_sighup);
    set_disposition(SIGQUIT, SIG_IGN);
    set_disposition(SIGINT, SIG_IGN);
    set_disposition(SIGPIPE, SIG_IGN);
}

void vc_handle_sighup(int signo)
{
    set_disposition(signo, vc_handle_sighup);
}

// Whether a waitpid() without blocking says that there may be more.
static bool reaped(int result)
{
    return result > 0 || (result < 0 && errno == EINTR);
}

static void mark_exited(int pid, int status)
{
    vc_child *child = vc_child_of_pid(pid);

    if (child == nullptr) {
        return;
    }
    if (child->reg.exit_func != nullptr) {
        child->reg.exit_func(status, pid);
    }
    vc_child_set_exited(child);
}

// Frees and closes nothing: the loop does, outside signal context. A thread
// that has been asked to end must not end in here, with a child reaped and
// its session unmarked.
void vc_handle_sigchld(int signo)
{
    const int saved_errno = errno;
    int cancel_state = 0;
    int status = 0;
    int result;

    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);

    set_disposition(signo, vc_handle_sigchld);
    vc_child_table_enter();
    while (reaped(result = waitpid(-1, &status, WNOHANG))) {
        vc_debug_msg("telnetd: sigchld signal capture %d, errno(%d)\n", result,
                     errno);
        mark_exited(result, status);
    }
    vc_child_table_leave();
    pthread_setcancelstate(cancel_state, nullptr);
    errno = saved_errno;
}

void vc_check_child(void)
{
    int status = 0;
    int result;

    while (reaped(result = waitpid(-1, &status, WNOHANG))) {
        const int error = errno;
        vc_debug_msg("vc: child %d is captured, errno(%d): %s\n", result, error,
                     strerror(error));
        vc_child *child = vc_child_of_pid(result);
        if (child != nullptr) {
            vc_child_set_exited(child);
            vc_child_kill(child);
        }
    }
}
