#include "kit/table.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

static kit_entry *g_entries[TTY_LINES];

kit_entry *kit_entry_at(int line)
{
    return line >= 0 && line < TTY_LINES ? g_entries[line] : nullptr;
}

// The time first, so that ids sort by it and say it; what follows tells apart
// the sessions of one second, and those before and after a clock set back.
static void make_id(kit_entry *entry)
{
    uint32_t number = 0;

    if (getrandom(&number, sizeof number, GRND_NONBLOCK) !=
        static_cast<ssize_t>(sizeof number)) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        number = static_cast<uint32_t>(now.tv_nsec) ^
                 static_cast<uint32_t>(now.tv_sec << 20) ^
                 static_cast<uint32_t>(entry->session.line);
    }
    (void)snprintf(entry->id, sizeof entry->id, "%08x%08x",
                   static_cast<uint32_t>(entry->session.begin), number);
}

kit_entry *kit_entry_make(int line)
{
    kit_entry *entry = static_cast<kit_entry *>(calloc(1, sizeof *entry));

    if (entry == nullptr) {
        return nullptr;
    }
    kit_session *session = &entry->session;
    session->size = sizeof *session;
    session->line = line;
    session->begin = time(nullptr);
    session->id = entry->id;
    session->peer = entry->peer;
    session->label = entry->label;
    session->device = entry->device;
    session->user = entry->user;
    session->peer_uid = KIT_NO_ID;
    session->peer_gid = KIT_NO_ID;
    entry->bell = entry->channel = -1;
    entry->connection = entry->master = -1;
    entry->keeper_bell = entry->program_channel = -1;
    entry->status = -1;
    make_id(entry);
    return entry;
}

void kit_close(int *fd)
{
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

// The daemon's own ends are closed by the session service.
void kit_entry_free(kit_entry *entry)
{
    kit_close(&entry->connection);
    kit_close(&entry->master);
    kit_close(&entry->keeper_bell);
    kit_close(&entry->program_channel);
    free(entry);
}

void kit_table_put(kit_entry *entry)
{
    kit_lock();
    g_entries[entry->session.line] = entry;
    kit_unlock();
}

void kit_table_take(const kit_entry *entry)
{
    kit_lock();
    g_entries[entry->session.line] = nullptr;
    kit_unlock();
}

int kit_table_next(int line)
{
    while (line < TTY_LINES && g_entries[line] == nullptr) {
        line++;
    }
    return line;
}

kit_counts kit_table_count(const kit_node *node, const kit_peer_key *key)
{
    kit_counts counts = {0, 0};

    for (int line = kit_table_next(0); line < TTY_LINES;
         line = kit_table_next(line + 1)) {
        const kit_entry *entry = g_entries[line];
        if (entry->node == node) {
            counts.of_service++;
            counts.of_peer += memcmp(&entry->key, key, sizeof *key) == 0;
        }
    }
    return counts;
}
