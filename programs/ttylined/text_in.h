// Lines of text that come from a descriptor. Nothing here waits.
#pragma once

#include <cstddef>
#include <string>

constexpr std::size_t TEXT_LINE_MAX = 512;

struct text_in {
    std::string held;
    bool skipping = false; // inside a line that is too long
};

enum class text_result { none, line, too_long };

// Takes the next line out of what was read. At the end of the input a last
// line needs no line feed. A line that is too long is reported once.
text_result text_in_next(text_in &in, bool at_end, std::string &line);

// Reads once; false at the end of the input or on an error.
bool text_in_read(text_in &in, int fd);
