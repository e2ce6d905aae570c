#include "kit/error.h"

#include <stdarg.h>
#include <stdio.h>

#include <ttyline/kit.h>

// A path of the longest kind and what is wrong with it.
constexpr size_t REASON_SIZE = 384;

// In the part of thread storage that needs no call to be found: the library
// then needs nothing of the loader.
static thread_local char g_reason[REASON_SIZE]
    __attribute__((tls_model("initial-exec")));

int kit_fail(const char *fmt, ...)
{
    va_list args;

    va_start(args, fmt);
    (void)vsnprintf(g_reason, sizeof g_reason, fmt, args);
    va_end(args);
    return -1;
}

const char *kit_error(void)
{
    return g_reason;
}
