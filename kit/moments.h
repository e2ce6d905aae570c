// The callbacks of the session service: the moments of a session as the
// daemon's loop sees them.
#pragma once

#include <ttyline/vc.h>

#include "kit/table.h"

// What they need before the first session. False when it is not to be had.
bool kit_moments_prepare(void);

// Fills in the callbacks of a registration.
void kit_moments_set(vc_reg *registration);

// Takes what the keeper, and what the program has said; of the latter no more
// than leaves others their turn. Do not wait. False when there will be no more.
bool kit_moments_bell(kit_entry *entry);
bool kit_moments_channel(kit_entry *entry);
