// The public face of the line environment: checks and serialisation around
// the file store.
#include "tty/env.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "common/keys.h"
#include "tty/lock.h"
#include "tty/store.h"

// The two reserved numbers are lines of no terminal: they have files like the
// others and nothing else.
static bool line_known(unsigned int ttyno)
{
    return ttyno < TTY_LINES || ttyno == TTY_LINE_RESERVED1 ||
           ttyno == TTY_LINE_RESERVED0;
}

// A closed vocabulary: what programs read from each other has to be spelt the
// same everywhere.
static bool name_known(const char *name)
{
    for (int i = 0; i < g_tty_env_size; i++) {
        if (strcmp(name, tty_envs[i]) == 0) {
            return true;
        }
    }
    return false;
}

int tty_env_check(unsigned int ttyno, const char *name, const char *value,
                  int mode)
{
    char label[32];

    (void)snprintf(label, sizeof label,
                   mode == TTY_ENV_SET ? "tty_setenv_%d" : "tty_getenv_%d",
                   getpid());
    if (!line_known(ttyno)) {
        const int line = static_cast<int>(ttyno);
        tty_debug_msg(0, "%s: invalid ttyno(%d)\n", "tty_env_check", line);
        tty_debug_msg(0, "%s: invalid ttyno(%d)\n", label, line);
        return 0;
    }
    if (name == nullptr) {
        tty_debug_msg(0, "%s: invalid name(null)\n", label);
        return 0;
    }
    if (mode == TTY_ENV_SET && value == nullptr) {
        tty_debug_msg(0, "%s: invalid value(name=%s)\n", label, name);
        return 0;
    }
    if (!name_known(name)) {
        tty_debug_msg(0, "tty_env: invalid name(%s)\n", name);
        return 0;
    }
    return 1;
}

int tty_setenv(unsigned int ttyno, const char *name, const char *value)
{
    int result = -1;

    // The checks are inside too: their messages then stand in the log in the
    // order in which the operations came.
    ttylib_enter();
    if (tty_env_check(ttyno, name, value, TTY_ENV_SET) == 1 &&
        tty_set_member(ttyno, name, value) == 0) {
        result = 0;
    }
    ttylib_leave();
    return result;
}

char *tty_getenv(unsigned int ttyno, const char *name, char *buf, int len)
{
    char *result = nullptr;

    ttylib_enter();
    if (tty_env_check(ttyno, name, nullptr, TTY_ENV_GET) == 1 && len > 0) {
        result =
            tty_get_member(ttyno, name, buf, static_cast<unsigned int>(len));
    }
    ttylib_leave();
    return result;
}
