// The closed vocabulary of per-line keys.
#pragma once

#include "common/face.h"

inline namespace TTYLINE_FACE
{

constexpr int TTY_ENV_COUNT = 94;

// In the order in which names are compared.
extern const char *const tty_envs[TTY_ENV_COUNT];

// How many leading entries of tty_envs are searched; read afresh each time.
extern int g_tty_env_size;

} // namespace TTYLINE_FACE
