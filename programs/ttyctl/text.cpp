#include "programs/ttyctl/text.h"

#include "programs/shared/escape.h"

constexpr unsigned int ASCII_END = 0x80;

// Bytes of the sequence that starts here, 0 when it is none. The second byte
// decides over forms that are too long, surrogates and what is above U+10FFFF.
static std::size_t sequence_length(const std::string &text, std::size_t at)
{
    const auto byte = [&](std::size_t offset) -> unsigned int {
        return at + offset < text.size()
                   ? static_cast<unsigned char>(text[at + offset])
                   : 0;
    };
    const unsigned int first = byte(0);
    if (first < ASCII_END) {
        return 1;
    }
    if (first < 0xc2 || first > 0xf4) {
        return 0;
    }
    const unsigned int low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
    const unsigned int high = first == 0xed   ? 0x9f
                              : first == 0xf4 ? 0x8f
                                              : 0xbf;
    if (byte(1) < low || byte(1) > high) {
        return 0;
    }
    const std::size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    for (std::size_t offset = 2; offset < length; offset++) {
        if ((byte(offset) & 0xc0) != 0x80) {
            return 0;
        }
    }
    return length;
}

std::string utf8_only(const std::string &text)
{
    std::string result;

    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = sequence_length(text, at);
        if (length == 0) {
            result += escaped_byte(text[at++]);
            continue;
        }
        result.append(text, at, length);
        at += length;
    }
    return result;
}
