// The line environment's file store. Both operations run inside the library's
// critical section, as they share one line buffer.
#pragma once

// Copies the value of name into value (len bytes, at least 1, terminated).
// Returns value, or null when there is none.
char *tty_get_member(unsigned int ttyno, const char *name, char *value,
                     unsigned int len);

// Replaces or appends the value of name. Returns 0 or -1. Sets the process's
// file-creation mask to 0 for good.
int tty_set_member(unsigned int ttyno, const char *name, const char *value);
