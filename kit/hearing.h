// What a session's keeper and its program tell the daemon, and what that makes
// of it. A keeper may be in somebody else's hands: each of its messages counts
// once, and only in its order.
#pragma once

#include "kit/table.h"

// A keeper that has not spoken by then hangs on a lock of the line; one that
// has but starts no program, on one of the machine's: who a user is may be
// asked of another machine, or of a lock that a thread held when the keeper was
// forked.
constexpr int64_t KIT_START_LIMIT_MS = 10000;

// Takes what the keeper, and what the program has said, no more than leaves
// others their turn. Do not wait. False when there will be no more.
bool kit_hear_bell(kit_entry *entry);
bool kit_hear_channel(kit_entry *entry);

// All that the program has said, when its session is over.
void kit_hear_rest(kit_entry *entry);

// A line of the system log about the session, with further words.
void kit_hear_note(const kit_entry *entry, const char *event, const char *more);
