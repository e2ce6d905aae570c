// Who is at the other end of a session, in a few words.
#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <ttyline/vc.h>

#include "vc/session.h"

// Line 258 is vty0.
constexpr int FIRST_VTY = 258;
constexpr int FAMILY_TIPC = 30;
constexpr size_t IPV4_TEXT_SIZE = 16;
constexpr size_t IPV6_TEXT_SIZE = 46;

static_assert(sizeof(struct sockaddr_storage) == 128, "any address fits");

static bool get_peer(int sockfd, struct sockaddr_storage *address)
{
    socklen_t length = sizeof *address;

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
    case FAMILY_TIPC:
        return "";
    default:
        return nullptr;
    }
}

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

    if (ttyno < 0 || ttyno >= TTY_LINES || buf == nullptr) {
        return nullptr;
    }
    const vc_child *child = vc_child_at(ttyno);
    if (child == nullptr) {
        return nullptr;
    }
    const char *address = address_text(child->sockfd, text);
    switch (child->reg.protocol) {
    case 1:
    case 2:
        put_label(buf, size, "web", address);
        return buf;
    case 3:
    case 4:
    case 5:
        (void)snprintf(vty, sizeof vty, "vty%d", ttyno - FIRST_VTY);
        put_label(buf, size, vty, address);
        return buf;
    case 7:
    case 9:
    case 10:
        put_label(buf, size, "ins", address);
        return buf;
    case 8:
        return nullptr;
    default:
        return buf;
    }
}
