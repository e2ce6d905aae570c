#include "programs/telnetd/terminals.h"

#include <cstdio>
#include <unistd.h>

// Where programs look, that of the machine's own first.
static const char *const DATABASES[] = {
    "/etc/terminfo", "/lib/terminfo", "/usr/lib/terminfo",
    "/usr/share/terminfo", "/usr/local/share/terminfo"};
constexpr size_t PATH_SIZE = 128;

bool terminal_known(const char *type)
{
    char path[PATH_SIZE];

    for (const char *database : DATABASES) {
        const int length =
            snprintf(path, sizeof path, "%s/%c/%s", database, type[0], type);
        if (length < static_cast<int>(sizeof path) && access(path, R_OK) == 0) {
            return true;
        }
    }
    return false;
}
