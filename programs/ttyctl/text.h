/*
 * Numbers that an operator typed, and texts that somebody else chose.
 */
#pragma once

#include <string>

/* Decimal digits only, without a sign; false leaves value as it was. */
bool parse_number(const std::string &text, unsigned int low, unsigned int high,
                  unsigned int &value);

/*
 * A text that no terminal takes for anything but text: whatever is not
 * printable ASCII becomes \xHH.
 */
std::string printable(const std::string &text);

/* Well-formed UTF-8: bytes that are not part of any become \xHH. */
std::string utf8_only(const std::string &text);
