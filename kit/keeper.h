// The keeper: the process between a session's connection and its terminal.
#pragma once

#include "kit/table.h"

// Runs the session in the forked child that the session service has put on the
// terminal; does not return.
[[noreturn]] int kit_keep(const kit_entry *entry, const char *device);
