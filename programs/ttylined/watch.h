// What one wait of the loop is for, and what came of it.
#pragma once

#include <map>
#include <vector>

#include <poll.h>

using watch_list = std::vector<pollfd>;

// By descriptor, what poll() said of it.
using ready_events = std::map<int, int>;

// Adds a descriptor. One with nothing to wait for is left out: its hang-up
// would be told again and again.
void watch(watch_list &list, int fd, bool in, bool out);

ready_events watch_result(const watch_list &list);

// 0 when nothing was said of it.
int events_of(const ready_events &ready, int fd);
