// How a program that its keeper has forked is let go: the keeper passes on what
// the peer has told of its terminal, the program says on the line whose it is,
// and tells the keeper. Only then does it run.
//
// It is the program that stores: the keeper may have given up the right to.
#pragma once

#include "kit/bell.h"
#include "kit/table.h"

// A pair for the two. False with errno set.
bool kit_go_open(int ends[2]);

// In the keeper: lets the program go and waits until it has stored. False with
// the reason why there is no session. A program that has ended is one that has
// said why on its terminal: true.
bool kit_go_let(int end, char *reason, size_t size);

// In the program: waits for its keeper, stores and answers. What could not be
// stored although the session goes on is in the system log. False when the
// session is over, or must not be.
bool kit_go_await(int end, const kit_entry *entry);
