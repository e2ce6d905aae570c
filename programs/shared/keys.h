// The vocabulary of the line store.
#pragma once

#include <string>

// Whether values are stored under this name. A word with a zero byte in it is
// no key, whatever stands before.
bool key_known(const std::string &name);
