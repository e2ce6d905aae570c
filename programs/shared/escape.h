// Text that somebody else chose, made fit to be shown: no terminal obeys what
// comes out, and whoever reads it can tell what went in.
#pragma once

#include <string>

// The byte as \xHH.
std::string escaped_byte(char byte);

// What is not printable ASCII as \xHH, and so are the characters of also. A
// backslash, which would pass for the beginning of these, is doubled unless
// it is one of them.
std::string escaped(const std::string &text, const std::string &also = "");
