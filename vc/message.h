// Records on the inetd connection, one at a time.
#pragma once

#include <ttyline/vc.h>

// Writes one record, with the connection in blocking mode. Returns a negative
// value with errno set when it could not be written whole. Blocks while the
// inetd does not read.
int vc_msg_send(int inetd_fd, const tty_cmsg *msg);

// Receives one record without waiting, and leaves the connection in blocking
// mode. Returns what recv() returns; anything but the record's size means that
// the connection is lost, as a record is never put together from parts.
int vc_msg_recv(int inetd_fd, tty_cmsg *msg);

// The path of a record, terminated whatever the sender did.
struct vc_msg_path {
    char text[VC_PATH_SIZE + 1];
};
vc_msg_path vc_msg_path_of(const tty_cmsg *msg);

// Puts at most 63 characters of path into the record and clears the rest of
// the field.
void vc_msg_set_path(tty_cmsg *msg, const char *path);
