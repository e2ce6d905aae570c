// Sessions that the session service does not relay: of them its loop hears
// nothing but the end of the keeper. The warden hears the rest.
#pragma once

#include "kit/table.h"

// Whether sessions of a protocol are of this kind, see vc(7).
bool kit_unrelayed(uint32_t protocol);

// Before the first session. False without a descriptor.
bool kit_unrelayed_prepare(void);

// The loop's thread: the warden hears the session from now on, or no longer.
// Until it does no longer the entry must stay.
bool kit_unrelayed_add(const kit_entry *entry);
void kit_unrelayed_remove(const kit_entry *entry);

// The warden: what it has to poll, and what to do when that is readable.
int kit_unrelayed_descriptor(void);
void kit_unrelayed_hear(void);
