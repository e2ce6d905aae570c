// The one whole-buffer writer.
#pragma once

#include "common/face.h"

inline namespace TTYLINE_FACE
{

// Writes all len bytes to fd, which is left in blocking mode. Returns len, or
// -1 with errno set after a hard error; what was written by then stays
// written. May block for as long as the other end does not read. Any thread.
int tty_write(int fd, const void *data, int len);

} // namespace TTYLINE_FACE
