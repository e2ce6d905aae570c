/*
 * Text that goes to a descriptor which may not be read, and lines that come
 * from one. Neither ever waits.
 */
#ifndef TTYLINED_TEXT_H
#define TTYLINED_TEXT_H

#include <cstddef>
#include <string>

constexpr std::size_t text_line_max = 512;

struct text_out {
    int fd = -1;
    std::string pending;
    std::size_t lost = 0; /* lines that found no room */
};

/* Appends text and writes what can be written at once. */
void text_out_add(text_out &out, const std::string &text);

/* The same for a line that is given up when too much is pending already. */
void text_out_add_line(text_out &out, const std::string &line);

void text_out_flush(text_out &out);

struct text_in {
    std::string held;
    bool skipping = false; /* inside a line that is too long */
};

enum class text_result { none, line, too_long };

/*
 * Takes the next line out of what was read. At the end of the input a last
 * line needs no line feed. A line that is too long is reported once.
 */
text_result text_in_next(text_in &in, bool at_end, std::string &line);

/* Reads once; false at the end of the input or on an error. */
bool text_in_read(text_in &in, int fd);

/* UTC, for the start of a trace line. */
std::string time_stamp();

#endif
