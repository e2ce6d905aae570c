// What a codec hears about its peer's terminal. A keeper has one session: what
// is told is the process's.
#pragma once

#include <stddef.h>

// Longer names are no terminal types.
constexpr size_t KIT_TYPE_SIZE = 64;

// The session's terminal from now on.
void kit_terminal_open(int master);

// What was told; a type of null and a size of 0 were not.
struct kit_terminal {
    const char *type;
    unsigned int columns;
    unsigned int rows;
};
kit_terminal kit_terminal_told(void);

// In the session's program: what its keeper has passed on. A name that is none
// and a size of 0 are not taken.
void kit_terminal_note(const kit_terminal *told);

// Whether the program has something typed to read; the terminal has looked at
// all that was, and has made signals of it.
bool kit_terminal_has_unread(void);

// Throws away what was typed and not read yet, a line that is being edited
// included.
void kit_terminal_forget_typed(void);
