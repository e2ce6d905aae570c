// Texts that a line shows before and after a login.
#pragma once

#include <ttyline/kit.h>

// Prints what the line's key holds, in which "\n" is the end of a line; nothing
// when it is absent. Waits for the line's lock.
void banner_show(const kit_session *session, const char *key);
