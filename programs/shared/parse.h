// Numbers that somebody typed.
#pragma once

#include <string>

// A decimal number within bounds: digits only, no sign and no blank. False for
// anything else, and value is left as it was.
bool parse_number(const std::string &text, unsigned int low, unsigned int high,
                  unsigned int &value);

// The same for bounds that are not negative.
bool parse_number(const std::string &text, int low, int high, int &value);
