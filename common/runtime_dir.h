// Paths inside the runtime directory.
#pragma once

#include "common/face.h"

inline namespace TTYLINE_FACE
{

// Size of the buffers that hold a path inside the runtime directory.
constexpr unsigned int TTY_PATH_SIZE = 128;

// Fills buf with the value of TMPDIR ("/" when unset) followed by name, and
// creates the runtime directory on the first call of the process. Returns
// buf, or null when buf is null or the path does not fit into size bytes
// (errno ENAMETOOLONG, buf empty). Reports nothing else: a directory that
// could not be made shows when a file in it is opened. Any thread.
char *tty_make_path(char *buf, unsigned int size, const char *name);

} // namespace TTYLINE_FACE
