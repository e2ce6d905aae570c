// What is stored of a line: whose session runs on it, and nothing of the one
// before.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct kit_pair {
    const char *key;
    const char *value;
};

// Replaces what is stored of a line, under its lock, in one step. Settings of
// the line itself stay, and its TTYDEV; all else goes, and the pairs come.
// Waits at most so long for the lock of another program. Returns 0, or -1 with
// errno and the reason for kit_error(); the line is then unchanged, or empty
// when the disk is full.
int kit_line_begin(int line, const kit_pair *pairs, size_t count,
                   int patience_ms);

// The same at the end of the session with this id, TTYDEV too and what a free
// line has instead. Returns 0 also when the line is another session's by now.
int kit_line_end(int line, const char *id, int patience_ms);
