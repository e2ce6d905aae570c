// The vocabulary of the session service: what the number of a protocol means,
// and what the number of a line means. Everything that is done by one of them
// asks here; the names of the numbers are in the public header.
#pragma once

#include <stdint.h>

#include <ttyline/vc.h>

// What a protocol asks of the address of its services.
enum address_kind {
    ADDRESS_ANY,
    ADDRESS_INET, // IPv4 or IPv6
    ADDRESS_TIPC,
    ADDRESS_PATH // a unix path, and no port
};

// What vc_service_peer() says.
enum peer_label {
    LABEL_KEPT, // nothing: the caller's buffer stays as it was
    LABEL_NULL, // nothing, with a null pointer
    LABEL_WEB,
    LABEL_VTY, // and which one
    LABEL_INS
};

struct vc_protocol {
    const char *name; // for people
    address_kind address;
    // The loop moves the data of the sessions; otherwise the session program
    // uses the connection itself.
    bool relayed;
    int terminal_type; // TTYTYPE of the session programs
    peer_label label;
    // A TIPC address has no port: the inetd knows the services by this one. 0
    // when a TIPC connection of the protocol is not wanted.
    int tipc_port;
    // Two protocols may be faces of one listener: when the one's cannot be
    // opened, the other's are closed too. The protocol itself when it has no
    // such partner.
    uint32_t partner;
    bool starts_closed; // not announced until the daemon opens it
    // A program whose first service has this protocol reaps its children
    // itself: the service leaves SIGCHLD alone.
    bool leaves_sigchld;
};

// Never null: a number that is no protocol is treated as VC_PROTOCOL_ANY, as
// one that comes from outside may be looked at before it has been refused.
const vc_protocol *vc_protocol_of(uint32_t protocol);

inline bool vc_line_valid(int ttyno)
{
    return ttyno >= 0 && ttyno < TTY_LINES;
}

// Of the lines, only those in two ranges are for sessions.
inline bool vc_line_carries_sessions(int ttyno)
{
    return (ttyno >= VC_LINE_LOW_FIRST && ttyno <= VC_LINE_LOW_LAST) ||
           (ttyno >= VC_LINE_HIGH_FIRST && ttyno <= VC_LINE_HIGH_LAST);
}

// The virtual terminals: the only lines that the inetd may clear.
inline bool vc_line_clearable(int ttyno)
{
    return ttyno >= VC_LINE_VTY_FIRST && ttyno <= VC_LINE_VTY_LAST;
}

// Which virtual terminal a line is, as its users count them. Other lines are
// counted on in both directions.
inline int vc_line_vty_number(int ttyno)
{
    return ttyno - VC_LINE_VTY_FIRST;
}
