// The telnet protocol as a codec of the kit: what the peer tells of its
// terminal goes to the session's.
#pragma once

#include <ttyline/kit.h>

extern const kit_codec g_telnet_codec;
