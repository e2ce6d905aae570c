// Text of another kind than the terminal's.
#pragma once

#include <string>

// Well-formed UTF-8: bytes that are not part of any become \xHH.
std::string utf8_only(const std::string &text);
