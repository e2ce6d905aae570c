// Programs that are not for root, in tests that root runs too.
#pragma once

#include <string>

// Lets whoever become_user() makes of a process own this tree. Before the
// process is made.
void own_by_user(const std::string &tree);

// In a new process, before it runs a program of the build: root is nobody from
// here on, and can go to where that lies.
void become_user();
