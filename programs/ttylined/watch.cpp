#include "programs/ttylined/watch.h"

void watch(watch_list &list, int fd, bool in, bool out)
{
    const int events = (in ? POLLIN : 0) | (out ? POLLOUT : 0);

    if (fd >= 0 && events != 0) {
        list.push_back({fd, static_cast<short>(events), 0});
    }
}

// The same descriptor may stand in the list twice, once for each direction.
ready_events watch_result(const watch_list &list)
{
    ready_events ready;

    for (const pollfd &entry : list) {
        if (entry.revents != 0) {
            ready[entry.fd] |= entry.revents;
        }
    }
    return ready;
}

int events_of(const ready_events &ready, int fd)
{
    const auto found = ready.find(fd);

    return found == ready.end() ? 0 : found->second;
}
