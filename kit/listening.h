// Services that should listen and do not.
#pragma once

#include <stdint.h>

// On the warden's thread: looks from time to time, and announces those again
// that have not listened for two looks. Returns when to look next.
int64_t kit_listening_look(int64_t now);
