#include "kit/identity.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "kit/line.h"
#include "kit/terminal.h"

// Another program has the line's lock for a moment, or it hangs.
constexpr int LINE_PATIENCE_MS = 5000;
constexpr size_t NUMBER_SIZE = 12;
constexpr size_t SIZE_PAIRS = 2;
static const char USUAL_TERM[] = "vt100";

const char *kit_identity_term(const kit_service *service)
{
    const char *told = kit_terminal_told().type;

    if (told != nullptr) {
        return told;
    }
    return service->term != nullptr ? service->term : USUAL_TERM;
}

void kit_identity_prepare(void)
{
    static_cast<void>(getpwuid(geteuid()));
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
    const kit_terminal told = kit_terminal_told();
    char columns[NUMBER_SIZE];
    char rows[NUMBER_SIZE];
    char line[NUMBER_SIZE];
    char pid[NUMBER_SIZE];
    char protocol[NUMBER_SIZE];
    char family[NUMBER_SIZE];

    (void)snprintf(line, sizeof line, "%d", entry->session.line);
    (void)snprintf(pid, sizeof pid, "%d", program);
    (void)snprintf(protocol, sizeof protocol, "%u", service->protocol);
    (void)snprintf(family, sizeof family, "%d", entry->family);
    (void)snprintf(columns, sizeof columns, "%u", told.columns);
    (void)snprintf(rows, sizeof rows, "%u", told.rows);
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
                                 {"IDLE", "0"},
                                 {"COLUMNS", columns},
                                 {"LINES", rows}};
    // A size that nobody told is none of the peer's.
    const size_t count = sizeof identity / sizeof *identity -
                         (told.columns == 0 ? SIZE_PAIRS : 0);

    return kit_line_begin(entry->session.line, identity, count,
                          LINE_PATIENCE_MS);
}
