// Moving the sessions' data: the part of a turn that is theirs. The loop's
// thread.
#pragma once

#include "vc/read_set.h"
#include "vc/session.h"

// Let the service move what the connection (in) or the pseudo-terminal (out)
// has. Return what the callback returned, or -1 after tearing the session
// down; the record is gone then.
int vc_indata_proc(vc_child *child);
int vc_outdata_proc(vc_child *child);

// Adds both descriptors of every session that is relayed. Sessions whose
// process has ended are torn down on the way.
void relay_watch(read_set *set);

// Moves what the sessions in the set have. ready is how many descriptors are in
// it, those of sessions and others. Returns whether a step had data left over.
bool relay_readable(read_set *set, int ready);

// Calls the steps that had data left over again, without waiting for input.
// Returns whether one still has.
bool relay_retry(void);
