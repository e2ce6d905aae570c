// Waiting with a deadline, for what gives no event to wait for.
#pragma once

#include <sys/types.h>

#include <functional>

namespace support
{

// Asks every few milliseconds until the answer is yes; false when it still is
// no after the time.
bool wait_until(const std::function<bool()> &holds, int milliseconds = 10000);

// Waits for the end of a child and returns its status as waitpid() gives it;
// a child that is late is killed, reaped and reported as -1.
int wait_child(pid_t pid, int milliseconds = 10000);

// Runs work in a child and returns its exit status: 0 when it returned true,
// 1 when false, -1 when it was late or died of a signal.
int in_child(const std::function<bool()> &work, int milliseconds = 10000);

} // namespace support
