// Registration: what a service must look like, and what the first one of the
// process sets up.
//
// A record is looked at without the lock, as it is the caller's; whether its
// endpoint is taken is asked under the lock that adds it, or two threads could
// both find it free.
#include "vc/registration.h"

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "vc/list.h"
#include "vc/protocol.h"
#include "vc/service.h"
#include "vc/session.h"
#include "vc/signals.h"

int vc_init(int protocol)
{
    const uint32_t first = static_cast<uint32_t>(protocol);

    vc_debug_init();
    INIT_LIST_HEAD(&g_vc_service_lists);
    vc_lock_init();
    vc_init_sigchld(!vc_protocol_of(first)->leaves_sigchld);
    vc_child_clear_all();
    return 0;
}

static bool complete(const vc_reg *reg)
{
    return reg != nullptr && reg->protocol <= VC_PROTOCOL_MAX &&
           reg->init_func != nullptr && reg->read_func != nullptr &&
           reg->write_func != nullptr && reg->kill_func != nullptr &&
           reg->alloc_func != nullptr && reg->shell_func != nullptr;
}

static bool log_bad_family(const vc_reg *reg)
{
    vc_debug_msg("vc: reg fail, protocol = %d, socket_type = %d\n",
                 static_cast<int>(reg->protocol), reg->socket_type);
    return false;
}

static bool path_acceptable(const vc_reg *reg)
{
    if (reg->socket_type == AF_UNIX && reg->listen_path != nullptr &&
        reg->listen_path[0] != '\0' && reg->listen_port == 0) {
        return true;
    }
    vc_debug_msg(
        "vc: reg fail, protocol = %d, socket_type = %d, listen_port = %d\n",
        static_cast<int>(reg->protocol), reg->socket_type, reg->listen_port);
    return false;
}

static bool address_acceptable(const vc_reg *reg)
{
    // not covered: every kind of address has its case
    switch (vc_protocol_of(reg->protocol)->address) {
    case ADDRESS_INET:
        return reg->socket_type == AF_INET || reg->socket_type == AF_INET6 ||
               // not covered: it returns false for its caller to return
               log_bad_family(reg);
    case ADDRESS_TIPC:
        // not covered: it returns false for its caller to return
        return reg->socket_type == AF_TIPC || log_bad_family(reg);
    case ADDRESS_PATH:
        return path_acceptable(reg);
    case ADDRESS_ANY:
        break;
    }
    return true;
}

static bool same_endpoint(const vc_srv *srv, const vc_reg *reg)
{
    if (srv->reg.listen_port != 0 && srv->reg.listen_port == reg->listen_port) {
        return true;
    }
    return reg->listen_path != nullptr &&
           vc_srv_has_path(srv, reg->listen_path);
}

// The protocol plays no part: one endpoint has one listener per family.
static bool registered(const vc_reg *reg)
{
    vc_srv *srv;

    VC_FOR_EACH_SERVICE(srv)
    {
        if (same_endpoint(srv, reg) &&
            srv->reg.socket_type == reg->socket_type) {
            return true;
        }
    }
    return false;
}

// Makes the node of a record. Returns null with the reason in *message.
static vc_srv *make_node(const vc_reg *reg, const char **message)
{
    vc_srv *srv = static_cast<vc_srv *>(calloc(1, sizeof *srv));

    if (srv == nullptr) {
        *message = "vc: malloc fail, srv == NULL\n";
        return nullptr;
    }
    srv->reg = *reg;
    if (reg->listen_path != nullptr) {
        srv->reg.listen_path = strdup(reg->listen_path);
        if (srv->reg.listen_path == nullptr) {
            free(srv);
            *message = "vc: strdup fail, reg->listen_path == NULL\n";
            return nullptr;
        }
    }
    srv->listen_fd = -1;
    if (vc_protocol_of(reg->protocol)->starts_closed) {
        srv->flags |= SRV_CLOSED;
    }
    return srv;
}

// Adds the service to the list. Returns null, or the message of the failure.
static const char *add_service(const vc_reg *reg)
{
    const char *message = nullptr;

    // Allocated under the lock as well: whoever sees the service in the list
    // sees all of it.
    vc_wlock();
    if (registered(reg)) {
        message = "vc: reg fail, duplicate registration\n";
    } else {
        vc_srv *srv = make_node(reg, &message);
        if (srv != nullptr) {
            list_add_tail(&srv->link, &g_vc_service_lists);
        }
    }
    vc_unlock();
    return message;
}

// For a loop that says that it has been started; it does not, and finds new
// services by itself.
static void wake_started_loop(void)
{
    if (g_vc_started) {
        raise(SIGHUP);
    }
}

int vc_service_reg(const vc_reg *reg)
{
    const int protocol = reg != nullptr ? static_cast<int>(reg->protocol) : -1;

    if (!g_vc_inited) {
        // not covered: the initialisation ends the process when it fails
        if (vc_init(protocol) < 0) {
            // Not so far: what it cannot do without ends the process.
            // NOLINTNEXTLINE(clang-analyzer-alpha.deadcode.UnreachableCode)
            vc_debug_msg("vc: vc_init fail\n");
            return -1;
        }
        // Set whatever becomes of this record: a daemon that registers another
        // one after a refusal must not be initialised twice, as that would
        // empty the list and take the signals away again.
        g_vc_inited = true;
    }
    if (!complete(reg)) {
        vc_debug_msg("vc: reg parameter error, protocal %d.\n", protocol);
        return -1;
    }
    if (!address_acceptable(reg)) {
        return -1;
    }
    const char *failure = add_service(reg);
    if (failure != nullptr) {
        vc_debug_msg("%s", failure);
        return -1;
    }
    wake_started_loop();
    return 0;
}

// Unlinks the first service on port and frees it, but not its path: the
// sessions of the service go on and share the pointer.
static bool remove_service(int port)
{
    vc_srv *srv;
    bool removed = false;

    vc_wlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (srv->reg.listen_port == port) {
            list_del_init(&srv->link);
            vc_srv_close_listener(srv);
            free(srv);
            removed = true;
            break;
        }
    }
    vc_unlock();
    return removed;
}

int vc_service_del(int port)
{
    if (!g_vc_inited) {
        return -1;
    }
    if (remove_service(port)) {
        wake_started_loop();
    }
    return 0;
}
