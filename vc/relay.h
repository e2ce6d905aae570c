// One step of moving a session's data.
#pragma once

#include "vc/session.h"

// Let the service move what the connection (in) or the pseudo-terminal (out)
// has. Return what the callback returned, or -1 after tearing the session
// down; the record is gone then. The loop's thread.
int vc_indata_proc(vc_child *child);
int vc_outdata_proc(vc_child *child);
