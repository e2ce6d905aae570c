// Who is at the other end of a session, in a few words.
#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <ttyline/vc.h>

#include "vc/protocol.h"
#include "vc/session.h"

constexpr size_t IPV4_TEXT_SIZE = 16;
constexpr size_t IPV6_TEXT_SIZE = 46;

static_assert(sizeof(struct sockaddr_storage) == 128, "any address fits");

static bool get_peer(int sockfd, struct sockaddr_storage *address)
{
    socklen_t length = sizeof *address;

    // A peer without a name leaves the buffer as it is: then the family is none
    // that has an address.
    memset(address, 0, sizeof *address);
    const int result = getpeername(
        sockfd, reinterpret_cast<struct sockaddr *>(address), &length);
    if (result < 0) {
        const int error = errno;
        vc_debug_msg("vc: getpeername(%d) fail(%d), errno=%d %s\n", sockfd,
                     result, error, strerror(error));
        return false;
    }
    return true;
}

// Returns text, or null for a peer that has no address to show. A TIPC peer
// has one without text.
static const char *address_text(int sockfd, char (&text)[IPV6_TEXT_SIZE])
{
    struct sockaddr_storage address;

    if (!get_peer(sockfd, &address)) {
        return nullptr;
    }
    switch (address.ss_family) {
    case AF_INET:
        return inet_ntop(
            AF_INET,
            &reinterpret_cast<struct sockaddr_in *>(&address)->sin_addr, text,
            IPV4_TEXT_SIZE);
    case AF_INET6:
        return inet_ntop(
            AF_INET6,
            &reinterpret_cast<struct sockaddr_in6 *>(&address)->sin6_addr, text,
            IPV6_TEXT_SIZE);
    case AF_TIPC:
        return "";
    default:
        return nullptr;
    }
}

// A TIPC peer shows as empty parentheses: it has an address, but none that
// could be written down.
static void put_label(char *buf, int size, const char *label,
                      const char *address)
{
    if (size <= 0) {
        return;
    }
    if (address != nullptr) {
        (void)snprintf(buf, static_cast<size_t>(size), "%s(%s)", label,
                       address);
    } else {
        (void)snprintf(buf, static_cast<size_t>(size), "%s", label);
    }
}

char *vc_service_peer(int ttyno, char *buf, int size)
{
    char text[IPV6_TEXT_SIZE];
    char vty[16];

    if (!vc_line_valid(ttyno) || buf == nullptr) {
        return nullptr;
    }
    const vc_child *child = vc_child_at(ttyno);
    if (child == nullptr) {
        return nullptr;
    }
    // Asked for before it is known whether it will be shown, also for protocols
    // without a label: a peer that cannot be named is logged for all of them.
    const char *address = address_text(child->sockfd, text);
    // not covered: every label has its case
    switch (vc_protocol_of(child->reg.protocol)->label) {
    case LABEL_WEB:
        put_label(buf, size, "web", address);
        break;
    case LABEL_VTY:
        (void)snprintf(vty, sizeof vty, "vty%d", vc_line_vty_number(ttyno));
        put_label(buf, size, vty, address);
        break;
    case LABEL_INS:
        put_label(buf, size, "ins", address);
        break;
    case LABEL_NULL:
        return nullptr;
    case LABEL_KEPT:
        break;
    }
    return buf;
}
