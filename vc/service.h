// The registered services and the lock that guards them.
#pragma once

#include <pthread.h>

#include <atomic>

#include <ttyline/vc.h>

// Bits of a service's flags.
constexpr uint32_t SRV_ANNOUNCED = 0x1; // the inetd has been asked
constexpr uint32_t SRV_CLOSED = 0x2;    // not announced, permits refused
constexpr uint32_t SRV_STOPPED = 0x4;   // permits ignored silently

// One service. Everything in it is guarded by the lock.
struct vc_srv {
    vc_list link;
    vc_reg reg;        // listen_path is the node's own copy
    int32_t listen_fd; // -1 when none
    uint32_t flags;
};

// In the order of registration.
extern vc_list g_vc_service_lists;
// Set by the first registration, never reset.
extern bool g_vc_inited;
// Nothing sets it: registration wakes no loop, which looks by itself.
extern bool g_vc_started;
// The loop's thread, 0 until its first announcement went through.
extern std::atomic<pthread_t> g_vc_tid;

// Number of the inetd connection as other threads may read it.
int32_t vc_tty_socket_get(void);
void vc_tty_socket_set(int32_t fd);

// The reader/writer lock of the list and of every node. Never nested, never
// held while the loop waits or relays. vc_unlock() returns the result of
// releasing it. A lock that cannot be made ends the process with status 0.
void vc_lock_init(void);
void vc_rlock(void);
void vc_wlock(void);
int vc_unlock(void);

// Closes a service's listener if it has one, without telling the peers that
// wait in its queue. Failures of close() are ignored.
void vc_srv_close_listener(vc_srv *srv);
// The same with a shutdown first.
void vc_srv_shut_listener(vc_srv *srv);
// The same without a shutdown, with a line in the log; a listener that cannot
// be closed is kept. function names the caller.
void vc_srv_close_listener_logged(vc_srv *srv, const char *function);

// Whether the service listens on a unix path equal to path.
bool vc_srv_has_path(const vc_srv *srv, const char *path);

// Visits every service in order. The next pointer is taken before an entry is
// visited, so that the visitor may unlink it.
inline vc_srv *vc_srv_of(vc_list *link)
{
    return reinterpret_cast<vc_srv *>(link);
}
// seldom covered: the assignment of the walk has no false
#define VC_FOR_EACH_SERVICE(srv)                                               \
    for (vc_list *link_ = g_vc_service_lists.next, *next_ = link_->next;       \
         link_ != &g_vc_service_lists && ((srv) = vc_srv_of(link_), true);     \
         link_ = next_, next_ = link_->next)
