// The commands of a line console.
#pragma once

#include <string>

#include "programs/rl-con/terminal.h"

struct console {
    unsigned line;
    std::string device;
    std::string peer;
    terminal term;
};

// Runs one line as typed and prints its answer to standard output; an empty
// line has none. False when the console is to end.
bool run_command(const console &c, const std::string &line);

// Cuts the first word off the text, and the blanks on both sides of the rest.
std::string take_word(std::string &text);
