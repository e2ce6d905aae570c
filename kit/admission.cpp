#include "kit/admission.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "kit/audit.h"
#include "kit/paths.h"
#include "kit/text.h"

// IPv6 hands out networks, not addresses: one customer is 64 bits. But all
// link-local addresses of a link, and of every other link, are in one.
constexpr size_t IPV6_NETWORK_BYTES = 8;
constexpr size_t REASON_SIZE = 128;
// Of what a refused client has said already.
constexpr int MOST_READS = 16;
// An address in words of the log, each byte escaped at worst.
constexpr size_t WORD_SIZE = 3 * KIT_PEER_SIZE;
static const char YOU_MAY_NOT[] = "you may not use this service";

static void describe_unix(kit_entry *entry, int connection,
                          const struct sockaddr_un *local)
{
    struct ucred peer;
    socklen_t length = sizeof peer;

    (void)snprintf(entry->address, sizeof entry->address, "%.*s",
                   static_cast<int>(sizeof local->sun_path), local->sun_path);
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        (void)snprintf(entry->peer, sizeof entry->peer, "unknown");
        return;
    }
    entry->session.peer_uid = peer.uid;
    entry->session.peer_gid = peer.gid;
    (void)snprintf(entry->peer, sizeof entry->peer, "uid %u", peer.uid);
    memcpy(entry->key.bytes, &peer.uid, sizeof peer.uid);
    // A peer in more groups than have room is known by its own one only.
    length = sizeof entry->groups;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, entry->groups,
                   &length) == 0) {
        entry->group_count = length / sizeof *entry->groups;
    }
}

static void describe_inet(kit_entry *entry, const struct sockaddr_in *peer)
{
    inet_ntop(AF_INET, &peer->sin_addr, entry->peer, sizeof entry->peer);
    (void)snprintf(entry->address, sizeof entry->address, "%s:%d", entry->peer,
                   ntohs(peer->sin_port));
    memcpy(entry->key.bytes, &peer->sin_addr, sizeof peer->sin_addr);
}

static void describe_inet6(kit_entry *entry, const struct sockaddr_in6 *peer)
{
    inet_ntop(AF_INET6, &peer->sin6_addr, entry->peer, sizeof entry->peer);
    (void)snprintf(entry->address, sizeof entry->address, "[%s]:%d",
                   entry->peer, ntohs(peer->sin6_port));
    if (IN6_IS_ADDR_LINKLOCAL(&peer->sin6_addr)) {
        memcpy(entry->key.bytes, &peer->sin6_addr, sizeof peer->sin6_addr);
        entry->key.link = peer->sin6_scope_id;
    } else {
        memcpy(entry->key.bytes, &peer->sin6_addr, IPV6_NETWORK_BYTES);
    }
}

void kit_admission_describe(kit_entry *entry, int connection)
{
    struct sockaddr_storage local = {};
    struct sockaddr_storage peer = {};
    socklen_t local_length = sizeof local;
    socklen_t peer_length = sizeof peer;

    getsockname(connection, reinterpret_cast<sockaddr *>(&local),
                &local_length);
    getpeername(connection, reinterpret_cast<sockaddr *>(&peer), &peer_length);
    entry->family = local.ss_family;
    entry->key.kind = static_cast<uint8_t>(local.ss_family);
    switch (local.ss_family) {
    case AF_INET:
        describe_inet(entry, reinterpret_cast<sockaddr_in *>(&peer));
        break;
    case AF_INET6:
        describe_inet6(entry, reinterpret_cast<sockaddr_in6 *>(&peer));
        break;
    case AF_UNIX:
        describe_unix(entry, connection,
                      reinterpret_cast<sockaddr_un *>(&local));
        break;
    default:
        (void)snprintf(entry->peer, sizeof entry->peer, "unknown");
    }
    kit_lock();
    entry->node = kit_node_at(&local);
    kit_unlock();
    entry->session.service =
        entry->node != nullptr ? entry->node->service : nullptr;
}

static bool known(const kit_entry *entry, const kit_rules *rules)
{
    if (kit_ids_have(&rules->users, entry->session.peer_uid) ||
        kit_ids_have(&rules->groups, entry->session.peer_gid)) {
        return true;
    }
    for (size_t i = 0; i < entry->group_count; i++) {
        if (kit_ids_have(&rules->groups, entry->groups[i])) {
            return true;
        }
    }
    return false;
}

// Null, or why not. With the lock held.
static const char *broken_rule(const kit_entry *entry, const kit_rules *rules)
{
    const kit_counts counts = kit_table_count(entry->node, &entry->key);

    if (rules == nullptr) {
        return nullptr;
    }
    if (rules->by_identity && entry->family == AF_UNIX &&
        !known(entry, rules)) {
        return YOU_MAY_NOT;
    }
    if (rules->most_sessions != 0 &&
        counts.of_service >= rules->most_sessions) {
        return "all sessions of this service are in use";
    }
    if (rules->most_per_peer != 0 && counts.of_peer >= rules->most_per_peer) {
        return "too many sessions from where you are";
    }
    return nullptr;
}

bool kit_admission_decide(const kit_entry *entry, char *reason, size_t size)
{
    const kit_service *service = entry->session.service;

    const bool permitted = kit_paths_admit(entry);
    kit_lock();
    const char *rule =
        permitted ? broken_rule(entry, entry->node->rules) : YOU_MAY_NOT;
    kit_unlock();
    if (rule != nullptr) {
        (void)snprintf(reason, size, "%s", rule);
        return false;
    }
    (void)snprintf(reason, size, "refused");
    return service->admit == nullptr ||
           service->admit(&entry->session, reason, size, service->context) == 0;
}

static void log_refusal(const kit_node *node, const char *peer,
                        const char *reason)
{
    char name[32];
    char peer_word[WORD_SIZE];
    char reason_word[3 * REASON_SIZE];
    char name_word[WORD_SIZE];

    kit_audit("refused service=%s peer=%s reason=%s",
              kit_word(name_word, sizeof name_word,
                       kit_service_name(node->service, name, sizeof name)),
              kit_word(peer_word, sizeof peer_word, peer),
              kit_word(reason_word, sizeof reason_word, reason));
}

// The client's own input goes first: a connection that is closed with unread
// input is reset, and a reset takes the text away.
void kit_admission_refuse(const kit_entry *entry, int connection,
                          const char *reason)
{
    char shown[REASON_SIZE];
    char line[REASON_SIZE + 16];
    char scrap[512];

    log_refusal(entry->node, entry->peer, reason);
    const kit_codec *codec = entry->session.service->codec;
    if (codec != nullptr && codec->plain_text == 0) {
        return;
    }
    const int length = snprintf(line, sizeof line, "ttyline: %s\r\n",
                                kit_plain(shown, sizeof shown, reason));
    for (int i = 0; i < MOST_READS; i++) {
        if (recv(connection, scrap, sizeof scrap, MSG_DONTWAIT) <= 0) {
            break;
        }
    }
    send(connection, line, static_cast<size_t>(length),
         MSG_DONTWAIT | MSG_NOSIGNAL);
}

// The session service tells ports in host order; nodes are asked in network
// order.
static kit_node *node_of_port(const struct sockaddr *local)
{
    struct sockaddr_storage address = {};

    if (local->sa_family == AF_INET) {
        memcpy(&address, local, sizeof(sockaddr_in));
        sockaddr_in *inet = reinterpret_cast<sockaddr_in *>(&address);
        inet->sin_port = htons(inet->sin_port);
    } else {
        memcpy(&address, local, sizeof(sockaddr_in6));
        sockaddr_in6 *inet6 = reinterpret_cast<sockaddr_in6 *>(&address);
        inet6->sin6_port = htons(inet6->sin6_port);
    }
    return kit_node_at(&address);
}

bool kit_admission_permit(const struct sockaddr *local,
                          const struct sockaddr *peer)
{
    char text[INET6_ADDRSTRLEN] = "unknown";
    const char *reason = nullptr;

    kit_lock();
    const kit_node *node = node_of_port(local);
    if (node != nullptr && node->rules != nullptr) {
        if (!kit_nets_have(&node->rules->peers, peer)) {
            reason = "peer address";
        } else if (!kit_nets_have(&node->rules->locals, local)) {
            reason = "local address";
        }
    }
    kit_unlock();
    if (node == nullptr || reason == nullptr) {
        return node != nullptr;
    }
    if (peer->sa_family == AF_INET) {
        inet_ntop(AF_INET,
                  &reinterpret_cast<const sockaddr_in *>(peer)->sin_addr, text,
                  sizeof text);
    } else {
        inet_ntop(AF_INET6,
                  &reinterpret_cast<const sockaddr_in6 *>(peer)->sin6_addr,
                  text, sizeof text);
    }
    log_refusal(node, text, reason);
    return false;
}
