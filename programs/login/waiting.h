// How many sessions may stand at the prompt: whoever opens connections and
// never logs in must not keep the lines from those who do.
#pragma once

#include <cstdint>

#include <ttyline/kit.h>

// Sessions of one service that wait for a login: of one peer, and in total.
// From half of the total on new ones are refused by chance, ever more often, so
// that a flood does not shut everybody out.
struct waiting_limits {
    unsigned most_per_peer;
    unsigned most;
};
constexpr waiting_limits WAITING_USUAL = {4, 32};

// Whether one more may wait beside so many; chance is any number.
bool waiting_permits(const waiting_limits &limits, unsigned of_peer,
                     unsigned in_total, uint32_t chance);

// A last word for kit_service: refuses a session when too many of its service
// wait already. In the daemon, on the loop's thread; does not wait.
int waiting_admit(const kit_session *session, char *reason, size_t size,
                  void *unused);
