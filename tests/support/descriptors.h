// What a process holds: its open descriptors and its children.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace support
{

// "number -> target" for every open descriptor, in order.
std::vector<std::string> open_descriptors();

// The process ids of the children that were not reaped yet, in order.
std::vector<pid_t> children();

} // namespace support
