// The serial console, for what not even the dump log can be trusted with.
#pragma once

#include <ttyline/tty.h>

// The console's device path: /dev/ttyS and the first digit of a kernel
// argument "console=ttyS<digit>", else /dev/ttyS0. Worked out once.
const char *tty_getconsolename(void);

// Writes a message of at most 2047 bytes to the console; drops it when the
// console cannot be opened. May block while the console does.
void tty_log_msg(const char *fmt, ...) TTYLINE_PRINTF(1, 2);
