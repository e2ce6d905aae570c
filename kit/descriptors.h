// Closing what a process has inherited.
#pragma once

#include <stddef.h>

// Closes every descriptor above the standard streams but these, which may be in
// any order, and -1 for none.
void kit_close_all_but(const int *own, size_t count);
