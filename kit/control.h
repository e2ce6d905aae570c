// The control socket: lines of words in, answers out, for the daemon's user and
// root only.
#pragma once

#include <poll.h>
#include <stdint.h>

#include <ttyline/kit.h>

constexpr size_t KIT_CONTROL_CLIENTS = 16;
constexpr size_t KIT_CONTROL_DESCRIPTORS = KIT_CONTROL_CLIENTS + 1;

// Listens on the daemon's path, if it has one. A socket that nobody serves any
// more is replaced. Returns -1 with the reason for kit_error().
int kit_control_open(const kit_daemon *daemon);

// Removes the path, if it is still this process's.
void kit_control_end(void);

// Fills in what has to be polled and returns how many there are; *next becomes
// the time when a client that does nothing is given up, if that is sooner.
size_t kit_control_watch(struct pollfd *watched, int64_t *next);
void kit_control_serve(const struct pollfd *watched, size_t count);
