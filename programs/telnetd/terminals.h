// Names of terminals that the machine knows.
#pragma once

// Reads the names of the terminal database, once and before any session: a
// keeper may not be able to look at a file.
void terminals_load();

// Whether a terminal of this name has an entry there.
bool terminal_known(const char *type);
