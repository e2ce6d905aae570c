// The callbacks of the session service: the moments of a session as the
// daemon's loop sees them.
#pragma once

#include <ttyline/vc.h>

// What they need before the first session. False when it is not to be had.
bool kit_moments_prepare(void);

// Fills in the callbacks of a registration.
void kit_moments_set(vc_reg *registration);
