// A line's keys as they are without a session.
#include <ttyline/tty.h>

struct reset_value {
    const char *name;
    const char *value;
};

// In the order in which they are stored: a failure leaves the rest as it was.
static const reset_value reset_values[] = {
    {"LOGNAME", ""},  {"SOCKADDR", ""},   {"RL_TIMEOUT", ""},
    {"PEERNAME", ""}, {"TTYPID", "-1"},   {"LOGSUCC", "0"},
    {"MTYPE", "0"},   {"SESSIONID", "0"}, {"IDLE", "0"},
};

// Each key by an operation of its own: the lock is free in between, and a
// program that waits for the line need not wait for nine files to be written.
int tty_reset_info(unsigned int ttyno)
{
    for (const reset_value &reset : reset_values) {
        if (tty_setenv(ttyno, reset.name, reset.value) != 0) {
            return -1;
        }
    }
    return 0;
}
