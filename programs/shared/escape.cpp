#include "programs/shared/escape.h"

#include <cstdio>

std::string escaped_byte(char byte)
{
    char code[8];

    std::snprintf(code, sizeof code, "\\x%02x",
                  static_cast<unsigned>(static_cast<unsigned char>(byte)));
    return code;
}

std::string escaped(const std::string &text, const std::string &also)
{
    std::string shown;

    for (const char c : text) {
        if (c < ' ' || c > '~' || also.find(c) != std::string::npos) {
            shown += escaped_byte(c);
        } else if (c == '\\') {
            shown += "\\\\";
        } else {
            shown += c;
        }
    }
    return shown;
}
