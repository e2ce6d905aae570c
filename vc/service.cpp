// The list of services and its lock, and what is done to a single node.
#include "vc/service.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

vc_list g_vc_service_lists = {&g_vc_service_lists, &g_vc_service_lists};
bool g_vc_inited = false;
bool g_vc_started = false;
std::atomic<pthread_t> g_vc_tid{0};
int32_t g_vc_tty_socket = -1;
static pthread_rwlock_t g_vc_lock;

// Programs see the number as a plain one: it cannot be of an atomic type.
int32_t vc_tty_socket_get(void)
{
    return __atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED);
}

void vc_tty_socket_set(int32_t fd)
{
    __atomic_store_n(&g_vc_tty_socket, fd, __ATOMIC_RELAXED);
}

void vc_lock_init(void)
{
    pthread_rwlockattr_t attr;

    if (pthread_rwlockattr_init(&attr) != 0 ||
        pthread_rwlock_init(&g_vc_lock, &attr) != 0) {
        // Every later call would go on unguarded, and the first one has no
        // caller that could be told: a daemon in this state is none. Status 0
        // is what those who start daemons have come to see here.
        exit(0);
    }
}

void vc_rlock(void)
{
    pthread_rwlock_rdlock(&g_vc_lock);
}

void vc_wlock(void)
{
    pthread_rwlock_wrlock(&g_vc_lock);
}

int vc_unlock(void)
{
    return pthread_rwlock_unlock(&g_vc_lock);
}

bool vc_srv_has_path(const vc_srv *srv, const char *path)
{
    return srv->reg.listen_path != nullptr &&
           strcmp(srv->reg.listen_path, path) == 0;
}

// Without a shutdown the clients in the queue of a listener that somebody else
// has too, such as a forked child, are not turned away.
void vc_srv_close_listener(vc_srv *srv)
{
    if (srv->listen_fd >= 0) {
        close(srv->listen_fd);
        srv->listen_fd = -1;
    }
}

void vc_srv_shut_listener(vc_srv *srv)
{
    if (srv->listen_fd >= 0) {
        shutdown(srv->listen_fd, SHUT_RDWR);
        vc_srv_close_listener(srv);
    }
}

void vc_srv_close_listener_logged(vc_srv *srv, const char *function)
{
    if (srv->listen_fd < 0) {
        return;
    }
    // The number is kept after a failure: the log names it, and the next reset
    // tries again.
    if (close(srv->listen_fd) == 0) {
        vc_debug_msg("(vc:%d):%s close listen fd(%d) success, err %s.\r\n",
                     getpid(), function, srv->listen_fd, strerror(errno));
        srv->listen_fd = -1;
    } else {
        vc_debug_msg("(vc:%d):%s close listen fd(%d) failed, err %s.\r\n",
                     getpid(), function, srv->listen_fd, strerror(errno));
    }
}
