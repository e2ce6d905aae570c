// What the drivers share. They do without the C++ library: the memory
// sanitizer takes what code that it did not build has written for unwritten.
#pragma once

#include <sys/un.h>

// Ends the process with status 1, naming the place, when holds is false.
#define EXPECT(holds) driver_expect((holds), #holds, __FILE__, __LINE__)

void driver_expect(bool holds, const char *what, const char *file, int line);

// The driver dies when it, or what it forks, takes longer than any machine
// needs.
void driver_set_deadline(void);

// The path of a name below the runtime directory, valid until the next call.
const char *driver_path(const char *name);

// A unix listener there, or a connection to one.
int driver_listen(const char *name);
int driver_connect(const char *name);
