// The permissions of unix paths.
#pragma once

#include <sys/types.h>

#include "kit/table.h"

// What they are to be, from before the first registration on. Watches the
// directories of the services that are known then and of those that are offered
// later.
void kit_paths_begin(mode_t mode);
void kit_paths_watch(const kit_service *service);

// Readable when something has been made beside a path; -1 when nothing can be
// watched.
int kit_paths_descriptor(void);
// Gives the paths of which it tells their mode.
void kit_paths_mend(void);

// Whether the mode of its path lets this peer in. The path gets its mode if it
// has not.
bool kit_paths_admit(const kit_entry *entry);
