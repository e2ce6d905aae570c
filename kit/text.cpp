#include "kit/text.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// No longer than any number that is asked for: strtol() cannot overflow.
constexpr size_t MOST_DIGITS = 9;

static bool stands_for_itself(unsigned char byte)
{
    return byte > ' ' && byte < 0x7f && byte != '%' && byte != '"' &&
           byte != '\\';
}

char *kit_word(char *out, size_t size, const char *text)
{
    size_t used = 0;

    if (text[0] == '\0') {
        text = "-";
    }
    for (; *text != '\0'; text++) {
        const unsigned char byte = static_cast<unsigned char>(*text);
        const size_t needed = stands_for_itself(byte) ? 1 : 3;
        if (used + needed >= size) {
            break;
        }
        if (needed == 1) {
            out[used] = *text;
        } else {
            (void)snprintf(out + used, size - used, "%%%02X", byte);
        }
        used += needed;
    }
    out[used] = '\0';
    return out;
}

char *kit_plain(char *out, size_t size, const char *text)
{
    size_t used = 0;

    while (used + 1 < size && static_cast<unsigned char>(text[used]) >= ' ' &&
           text[used] != 0x7f) {
        out[used] = text[used];
        used++;
    }
    out[used] = '\0';
    return out;
}

bool kit_number(const char *text, long lowest, long highest, int *number)
{
    const size_t length = strlen(text);

    if (length == 0 || length > MOST_DIGITS ||
        strspn(text, "0123456789") != length) {
        return false;
    }
    const long value = strtol(text, nullptr, 10);
    *number = static_cast<int>(value);
    return value >= lowest && value <= highest;
}
