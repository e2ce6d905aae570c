// Checks of the requests to the line environment.
#pragma once

constexpr int TTY_ENV_GET = 1;
constexpr int TTY_ENV_SET = 2;

// Returns 1 when line number, name and, for a set, value are acceptable, else
// 0 with the reason in the log. Every mode but TTY_ENV_SET counts as a get.
// Call it inside the library's critical section.
int tty_env_check(unsigned int ttyno, const char *name, const char *value,
                  int mode);
