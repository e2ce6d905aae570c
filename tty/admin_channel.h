// The connection to the line administration daemon and the requests on it.
#pragma once

#include <stdint.h>

constexpr uint32_t ADMIN_REQUEST_SIZE = 64;

// A request under construction. A zeroed one is empty.
struct admin_request {
    uint8_t bytes[ADMIN_REQUEST_SIZE];
    uint32_t used;
};

// Opens a new connection. Returns its descriptor or -1. May block while the
// daemon's queue is full.
int ttylib_connect(void);

// Enters the library's critical section and makes sure of the connection.
// False when there is none; the section has been left again then.
bool admin_enter(void);

// Appends an item; one that has no room is left out.
void admin_append(admin_request *request, uint16_t type, uint32_t value);

// Sends the request, inside the critical section. Returns 0, or -1 after
// logging why; the connection is kept in both cases. Blocks while the daemon
// does not read.
int admin_send(const admin_request *request);
