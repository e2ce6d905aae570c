// Text that goes to a descriptor which may not be read. Nothing here waits.
#pragma once

#include <string>

struct text_out {
    int fd = -1; // -1: what is added is thrown away
    std::string pending;
};

// Appends text and writes what can be written at once.
void text_out_add(text_out &out, const std::string &text);

void text_out_flush(text_out &out);
