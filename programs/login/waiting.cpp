#include "programs/login/waiting.h"

#include <cstdio>
#include <cstring>
#include <sys/random.h>

bool waiting_permits(const waiting_limits &limits, unsigned of_peer,
                     unsigned in_total, uint32_t chance)
{
    const unsigned early = limits.most / 2;

    if (of_peer >= limits.most_per_peer || in_total >= limits.most) {
        return false;
    }
    return in_total < early ||
           chance % (limits.most - early) >= in_total - early;
}

struct count {
    const kit_session *newcomer;
    unsigned of_peer;
    unsigned in_total;
};

static void count_one(const kit_session *session, void *argument)
{
    count *seen = static_cast<count *>(argument);

    if (session->service != seen->newcomer->service ||
        session->logged_in != 0 || session->line == seen->newcomer->line) {
        return;
    }
    seen->in_total++;
    seen->of_peer += strcmp(session->peer, seen->newcomer->peer) == 0 ? 1 : 0;
}

int waiting_admit(const kit_session *session, char *reason, size_t size,
                  void *unused)
{
    count seen = {session, 0, 0};
    uint32_t chance = 0;

    (void)unused;
    kit_each_session(count_one, &seen);
    // Without chance the flood's own share is the greatest.
    if (getrandom(&chance, sizeof chance, GRND_NONBLOCK) != sizeof chance) {
        chance = UINT32_MAX;
    }
    if (waiting_permits(WAITING_USUAL, seen.of_peer, seen.in_total, chance)) {
        return 0;
    }
    (void)snprintf(reason, size, "too many are logging in, try again later");
    return -1;
}
