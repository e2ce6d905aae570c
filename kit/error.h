// The reason of a thread's last failure, for kit_error().
#pragma once

// Keeps the reason and returns -1.
int kit_fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
