#include "kit/identity.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "kit/line.h"

// Another program has the line's lock for a moment, or it hangs.
constexpr int LINE_PATIENCE_MS = 5000;
constexpr size_t NUMBER_SIZE = 12;
static const char USUAL_TERM[] = "vt100";

const char *kit_identity_term(const kit_service *service)
{
    return service->term != nullptr ? service->term : USUAL_TERM;
}

const struct passwd *kit_identity_user(const kit_service *service)
{
    return service->user != nullptr ? getpwnam(service->user)
                                    : getpwuid(geteuid());
}

int kit_identity_store(const kit_entry *entry, pid_t program)
{
    const kit_service *service = entry->session.service;
    const char *type = getenv("TTYTYPE");
    char line[NUMBER_SIZE];
    char pid[NUMBER_SIZE];
    char protocol[NUMBER_SIZE];
    char family[NUMBER_SIZE];

    (void)snprintf(line, sizeof line, "%d", entry->session.line);
    (void)snprintf(pid, sizeof pid, "%d", program);
    (void)snprintf(protocol, sizeof protocol, "%u", service->protocol);
    (void)snprintf(family, sizeof family, "%d", entry->family);
    const kit_pair identity[] = {{"TTYNUM", line},
                                 {"TTYPID", pid},
                                 {"TTYTYPE", type != nullptr ? type : "0"},
                                 {"PROTOCOL", protocol},
                                 {"CONN_TYPE", family},
                                 {"LOGNAME", entry->user},
                                 {"PEERNAME", entry->peer},
                                 {"SOCKADDR", entry->address},
                                 {"SESSIONID", entry->id},
                                 {"TERM", kit_identity_term(service)},
                                 {"LOGSUCC", "0"},
                                 {"MTYPE", "0"},
                                 {"IDLE", "0"}};
    return kit_line_begin(entry->session.line, identity,
                          sizeof identity / sizeof *identity, LINE_PATIENCE_MS);
}
