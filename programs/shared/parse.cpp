#include "programs/shared/parse.h"

#include <charconv>

bool parse_number(const std::string &text, unsigned int low, unsigned int high,
                  unsigned int &value)
{
    const char *const end = text.data() + text.size();
    unsigned int number = 0;

    // It takes no sign for a type that has none.
    const auto [stop, failed] = std::from_chars(text.data(), end, number);
    if (failed != std::errc{} || stop != end || number < low || number > high) {
        return false;
    }
    value = number;
    return true;
}

bool parse_number(const std::string &text, int low, int high, int &value)
{
    unsigned int number = 0;

    if (!parse_number(text, static_cast<unsigned int>(low),
                      static_cast<unsigned int>(high), number)) {
        return false;
    }
    value = static_cast<int>(number);
    return true;
}
