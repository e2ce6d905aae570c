#include "tests/support/machine.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace support
{

// The runners look for this line; TTYLINE_MACHINE says which of them it is.
static void cannot_hold_in(const char *machine, const char *reason)
{
    const char *here = getenv("TTYLINE_MACHINE");

    if (here != nullptr && strcmp(here, machine) == 0) {
        printf("\ncannot hold here: %s\n", reason);
        fflush(stdout);
    }
}

void not_in_guest(const char *reason)
{
    cannot_hold_in("guest", reason);
}

void not_in_emulator(const char *reason)
{
    cannot_hold_in("emulator", reason);
}

} // namespace support
