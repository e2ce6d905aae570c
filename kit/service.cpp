#include "kit/service.h"

#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/un.h>

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static kit_node *g_nodes;

void kit_lock(void)
{
    pthread_mutex_lock(&g_lock);
}

void kit_unlock(void)
{
    pthread_mutex_unlock(&g_lock);
}

kit_node *kit_first_node(void)
{
    return g_nodes;
}

const kit_node *kit_node_after(const kit_node *node)
{
    kit_lock();
    const kit_node *next = node != nullptr ? node->next : g_nodes;
    kit_unlock();
    return next;
}

uint32_t kit_families(const kit_service *service)
{
    return service->families != 0 ? service->families : KIT_IPV4 | KIT_IPV6;
}

static bool same_place(const kit_node *known, const kit_node *node)
{
    const char *path = known->service->path;
    const char *wanted = node->service->path;

    if (path != nullptr || wanted != nullptr) {
        return path != nullptr && wanted != nullptr &&
               strcmp(path, wanted) == 0;
    }
    return known->port == node->port &&
           (kit_families(known->service) & kit_families(node->service)) != 0;
}

bool kit_node_taken(const kit_node *node)
{
    const kit_node *known = g_nodes;

    while (known != nullptr && !same_place(known, node)) {
        known = known->next;
    }
    return known != nullptr;
}

void kit_node_add(kit_node *node)
{
    kit_node **end = &g_nodes;

    while (*end != nullptr) {
        end = &(*end)->next;
    }
    *end = node;
}

kit_node *kit_node_of(const kit_service *service)
{
    for (kit_node *node = g_nodes; node != nullptr; node = node->next) {
        if (node->service == service) {
            return node;
        }
    }
    return nullptr;
}

static kit_node *node_at_port(unsigned int family, int port)
{
    for (kit_node *node = g_nodes; node != nullptr; node = node->next) {
        if (node->service->path == nullptr && node->port == port &&
            (kit_families(node->service) & family) != 0) {
            return node;
        }
    }
    return nullptr;
}

// A listener's name may fill its field without a terminator.
static kit_node *node_at_path(const struct sockaddr_un *local)
{
    for (kit_node *node = g_nodes; node != nullptr; node = node->next) {
        if (node->service->path != nullptr &&
            strncmp(local->sun_path, node->service->path,
                    sizeof local->sun_path) == 0) {
            return node;
        }
    }
    return nullptr;
}

kit_node *kit_node_at(const struct sockaddr_storage *local)
{
    switch (local->ss_family) {
    case AF_INET:
        return node_at_port(
            KIT_IPV4,
            ntohs(reinterpret_cast<const sockaddr_in *>(local)->sin_port));
    case AF_INET6:
        return node_at_port(
            KIT_IPV6,
            ntohs(reinterpret_cast<const sockaddr_in6 *>(local)->sin6_port));
    case AF_UNIX:
        return node_at_path(reinterpret_cast<const sockaddr_un *>(local));
    default:
        return nullptr;
    }
}

void kit_service_moved(uint32_t protocol, int old_port, int new_port)
{
    kit_lock();
    for (kit_node *node = g_nodes; node != nullptr; node = node->next) {
        if (node->service->protocol == protocol && node->port == old_port &&
            node->service->path == nullptr) {
            node->port = new_port;
        }
    }
    kit_unlock();
}

bool kit_service_stopped(uint32_t protocol, bool stopped)
{
    bool before = false;

    kit_lock();
    for (kit_node *node = g_nodes; node != nullptr; node = node->next) {
        if (node->service->protocol == protocol) {
            before = before || node->stopped;
            node->stopped = stopped;
        }
    }
    kit_unlock();
    return before;
}

const char *kit_service_name(const kit_service *service, char *buffer,
                             size_t size)
{
    if (service->name != nullptr) {
        return service->name;
    }
    (void)snprintf(buffer, size, "protocol-%u", service->protocol);
    return buffer;
}
