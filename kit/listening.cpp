// When a permit cannot be obeyed, as a child that is about to close it still
// has the old listener of a port, the session service renews its connection to
// the inetd. The permits that stood behind are lost with the old one, and their
// services count as announced: nobody could come in there until the next reset.
#include "kit/listening.h"

#include <sys/socket.h>
#include <unistd.h>

#include <ttyline/vc.h>

#include "kit/audit.h"
#include "kit/service.h"

// Nobody tells of it, so it is looked for. A service that does not listen is
// given as long again, as its permit may be under way: an inetd that answers
// two requests for a path makes it unreachable.
constexpr int64_t LOOK_MS = 3000;
// A service that still does not listen then is not permitted to.
constexpr int MOST_ATTEMPTS = 5;
constexpr uint32_t ON_PATH = 4; // beside the families of a port

// The warden's own.
static int64_t g_look_at;
static uint32_t g_deaf; // protocols, a bit each, at the last look
static int g_attempts;

static uint32_t family_bit(sa_family_t family)
{
    switch (family) {
    case AF_INET:
        return KIT_IPV4;
    case AF_INET6:
        return KIT_IPV6;
    default:
        return ON_PATH;
    }
}

static uint32_t wanted(const kit_node *node)
{
    if (!node->registered || node->stopped) {
        return 0;
    }
    return node->service->path != nullptr ? ON_PATH
                                          : kit_families(node->service);
}

static uint32_t missing(void)
{
    uint32_t protocols = 0;

    for (const kit_node *node = kit_first_node(); node != nullptr;
         node = node->next) {
        if ((wanted(node) & ~node->listening) != 0) {
            protocols |= 1u << node->service->protocol;
        }
    }
    return protocols;
}

static void note_listener(int fd)
{
    struct sockaddr_storage local = {};
    int listening = 0;
    socklen_t size = sizeof listening;
    socklen_t length = sizeof local;

    if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 ||
        listening == 0 ||
        getsockname(fd, reinterpret_cast<struct sockaddr *>(&local), &length) !=
            0) {
        return;
    }
    kit_node *node = kit_node_at(&local);
    if (node != nullptr) {
        node->listening |= family_bit(local.ss_family);
    }
}

// The protocols of services that should listen and do not. The listeners are
// the session service's, which tells nobody of them; they are among the lowest
// numbers, and when all are found the others are not looked at.
static uint32_t find_deaf(void)
{
    const long limit = sysconf(_SC_OPEN_MAX);

    kit_lock();
    for (kit_node *node = kit_first_node(); node != nullptr;
         node = node->next) {
        node->listening = 0;
    }
    uint32_t protocols = missing();
    for (int fd = 0; fd < limit && protocols != 0; fd++) {
        note_listener(fd);
        protocols = missing();
    }
    kit_unlock();
    return protocols;
}

static void announce_again(uint32_t protocols)
{
    for (int protocol = 0; protocol <= VC_PROTOCOL_MAX; protocol++) {
        if ((protocols & 1u << protocol) != 0) {
            kit_audit("not-listening protocol=%d", protocol);
            vc_deal_service_listen(false, protocol);
            vc_deal_service_listen(true, protocol);
        }
    }
}

int64_t kit_listening_look(int64_t now)
{
    if (now < g_look_at) {
        return g_look_at;
    }
    g_look_at = now + LOOK_MS;
    // While there is no inetd nothing listens, and nothing can be asked for.
    const uint32_t deaf =
        __atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) >= 0 ? find_deaf()
                                                                 : 0;
    if (deaf == 0) {
        g_attempts = 0;
    } else if ((deaf & g_deaf) != 0 && g_attempts < MOST_ATTEMPTS) {
        g_attempts++;
        announce_again(deaf & g_deaf);
    }
    g_deaf = deaf;
    return g_look_at;
}
