// Whose a session is, for whoever reads lines.
#pragma once

#include <pwd.h>

#include "kit/table.h"

// Has the name service ready before the first session: what it reads and keeps
// is read once then, and not by each session's process.
void kit_identity_prepare(void);

// The user that the service's program runs as; null when there is none.
const struct passwd *kit_identity_user(const kit_service *service);

const char *kit_identity_term(const kit_service *service);

// Stores it, with the program's process, after everything that another session
// has left was cleaned away. Returns -1 with errno and the reason for
// kit_error().
int kit_identity_store(const kit_entry *entry, pid_t program);
