// The services that the dispatch target registers, and a picture of all that a
// record can change.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <utility>
#include <vector>

#include "vc/service.h"

namespace dispatch
{

struct endpoint {
    int family;
    int port;
    const char *path;
    uint32_t protocol;
};

constexpr size_t SERVICES = 9;
extern const endpoint endpoints[SERVICES];
extern vc_srv *services[SERVICES];
// The lines whose kill callback was called.
extern std::vector<int> killed;
// A descriptor has got several owners.
extern bool tangled;

struct service_state {
    int fd;
    uint32_t flags;
};

struct session_state {
    int sockfd;
    int master_fd;
    int pid;
};

struct picture {
    service_state services[SERVICES];
    std::map<int, session_state> sessions;
    std::vector<std::pair<int, int>> pending;
};

// Registers every endpoint; once.
bool register_all();
// As after the registration: announced, no listener, no session.
void start_afresh();

// Whether sessions may have this line.
bool carries_sessions(int ttyno);
picture look();
// Whatever is open has an owner, and is what it is owned as.
void check_state(const picture &seen);

} // namespace dispatch
