// Looking for a part of a text.
#pragma once

#include <string>

inline bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

inline int count_of(const std::string &text, const std::string &part)
{
    int count = 0;

    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + 1)) {
        count++;
    }
    return count;
}
