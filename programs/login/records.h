// utmp and wtmp: who is logged in, for the system's own tools.
#pragma once

#include <ttyline/kit.h>

// From this process, for as long as it runs. Files that the machine does not
// have are not made.
void records_begin(const kit_session *session, const char *user);
void records_end(const kit_session *session);
