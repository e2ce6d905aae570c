// Which user names are taken from a terminal at all.
#pragma once

#include <cstddef>

// With its end; what the system's own tools accept, and a directory's names
// with a domain before them.
constexpr std::size_t LOGIN_NAME_SIZE = 128;

// False for what nobody is called but what does harm where a name is used: an
// option to a program, a second line in a file or log, an escape sequence on
// somebody's screen.
bool login_name_acceptable(const char *name);
