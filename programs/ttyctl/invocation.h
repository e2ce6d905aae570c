// What the command line said.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <ttyline/tty.h>

constexpr int DEFAULT_TIMEOUT = 2;
constexpr int DEFAULT_WATCH = 2;

struct invocation {
    std::vector<std::string> arguments;
    int timeout = DEFAULT_TIMEOUT; // seconds
    int watch = 0;                 // seconds between two tables, 0: once
    unsigned int except = TTY_LINES;
    bool json = false;
    bool code = false;
};

// When to give up what starts now.
inline std::chrono::steady_clock::time_point deadline_of(const invocation &call)
{
    return std::chrono::steady_clock::now() +
           std::chrono::seconds(call.timeout);
}
