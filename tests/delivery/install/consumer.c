/* A program of somebody else: uses both libraries through what is installed. */
#include <stdio.h>
#include <string.h>

#include <ttyline/tty.h>
#include <ttyline/vc.h>

int main(void)
{
    vc_reg empty;
    char value[32];

    memset(&empty, 0, sizeof empty);
    if (vc_service_start() != -1 || vc_service_reg(&empty) != -1) {
        fprintf(stderr, "an empty registration went through\n");
        return 1;
    }
    if (tty_setenv(300, "LOGNAME", "alice") != 0 ||
        tty_getenv(300, "LOGNAME", value, sizeof value) == NULL ||
        strcmp(value, "alice") != 0) {
        fprintf(stderr, "the value did not come back\n");
        return 1;
    }
    return 0;
}
