// Questions on the session's terminal, descriptors 0 and 1.
#pragma once

#include <cstddef>

enum class prompt_result {
    ANSWERED,
    TOO_LONG, // nothing of it is in the buffer
    ENDED,    // the terminal was hung up, its user typed the end, or the time
              // is over
};

// Prints the text and reads one line, without its end, into a buffer of this
// size. Waits for it. Without echo what is typed is not shown, nor what was
// typed ahead of the question used; the terminal is as before afterwards. An
// answer that must not stay in memory is the caller's to wipe.
prompt_result prompt_ask(const char *text, bool echo, char *answer,
                         std::size_t size);

// How long all answers may take together, from now on; 0: without a limit.
void prompt_limit(unsigned seconds);
bool prompt_time_over();

// Prints a text on a line of its own.
void prompt_say(const char *text);
