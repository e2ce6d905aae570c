// Who a connection is from, and whether it may become a session.
#pragma once

#include "kit/table.h"

// Fills in who is at both ends of an accepted connection.
void kit_admission_describe(kit_entry *entry, int connection);

// The rules of the entry's service, then its own word. False with the reason
// for people; the loop's thread.
bool kit_admission_decide(const kit_entry *entry, char *reason, size_t size);

// Tells the client, if it reads text, and the system log.
void kit_admission_refuse(const kit_entry *entry, int connection,
                          const char *reason);

// The part of the rules that is asked before a connection is a session at all:
// the addresses, ports in host order.
bool kit_admission_permit(const struct sockaddr *local,
                          const struct sockaddr *peer);
