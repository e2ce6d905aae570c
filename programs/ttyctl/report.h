// What ttyctl tells its caller: exit statuses and messages.
#pragma once

#include <string>

enum exit_status {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_LOCKED = 3,
    EXIT_UNANSWERED = 4,
};

// One message on standard error; both return the status to exit with.
int fail(exit_status status, const std::string &message);
int usage_error(const std::string &message);

// Writes to standard output; EXIT_FAILED when that is full or gone.
int print(const std::string &text);
