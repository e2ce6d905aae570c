// Dump files: append-only logs that are emptied when they grow too large.
#pragma once

#include "common/face.h"

inline namespace TTYLINE_FACE
{

// Appends the text line (terminated, with its own line end) to the dump file
// at path, creating it; empties the file first when it is larger than 1 MiB.
// Returns 0, or -1 with the errno of open() when the file cannot be opened. A
// failed write is not reported. Any thread; lines of several writers stay
// whole as far as the kernel's appends do.
int dump_file_append(const char *path, const char *line);

} // namespace TTYLINE_FACE
