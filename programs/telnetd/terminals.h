// The terminal database of the machine.
#pragma once

// Whether it has an entry of this name, which is a plain one: no path, and not
// empty.
bool terminal_known(const char *type);
