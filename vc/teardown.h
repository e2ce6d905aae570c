// The end of a session.
#pragma once

#include "vc/session.h"

// Ends a session, whatever the cause: the service's kill callback, the
// descriptors closed, the child signalled, a line-clean record to the inetd,
// the slot emptied and the record freed. The loop's thread. Waits for as long
// as the inetd connection neither takes the record nor breaks.
void vc_child_kill(vc_child *child);
