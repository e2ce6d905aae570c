// Whether somebody else serves already where a service is to be reached.
#pragma once

#include <ttyline/kit.h>

// 0 when nobody does, else -1 with the reason for kit_error(). One that is just
// ending, and what it has started, have three seconds to let go.
int kit_place_free(const kit_service *service);

// Whether a process has this unix path. What a dead one has left is nobody's.
bool kit_place_path_taken(const char *path);
