// What the first registration sets up; the rest of registration is in the
// public header.
#pragma once

// What the first registration does before it looks at its record: log, list,
// lock, signals, table of sessions. protocol is that record's, whatever it may
// be. Returns 0.
int vc_init(int protocol);
