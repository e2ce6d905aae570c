// The vocabulary of keys for programs, which cannot see the line library's own.
#include <ttyline/kit.h>

#include "common/keys.h"

const char *kit_key(unsigned int index)
{
    return index < TTY_ENV_COUNT ? tty_envs[index] : nullptr;
}
