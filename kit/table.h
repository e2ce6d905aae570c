// The daemon's table of sessions: a slot per line.
#pragma once

#include <ttyline/kit.h>
#include <ttyline/tty.h>

#include "kit/service.h"

constexpr size_t KIT_ID_SIZE = 17;
constexpr size_t KIT_PEER_SIZE = 64;
constexpr size_t KIT_ADDRESS_SIZE = 128;
constexpr size_t KIT_DEVICE_SIZE = 32;
constexpr size_t KIT_USER_SIZE = 64;
constexpr size_t KIT_MOST_GROUPS = 64;

// Whom the limit per peer counts.
struct kit_peer_key {
    uint32_t kind; // family of the peer
    uint8_t bytes[16];
    uint32_t link; // of a link-local address
};

// One session. The loop's thread alone changes it, but for end_by_ms, with the
// lock held while it is in the table: the loop reads without, other threads
// with the lock.
struct kit_entry {
    kit_session session; // what callbacks see; its pointers lead below
    kit_node *node;
    char id[KIT_ID_SIZE];
    char peer[KIT_PEER_SIZE];
    char label[KIT_PEER_SIZE];
    char address[KIT_ADDRESS_SIZE]; // with its port, or the path
    char device[KIT_DEVICE_SIZE];
    char user[KIT_USER_SIZE];
    kit_peer_key key;
    int family;
    gid_t groups[KIT_MOST_GROUPS]; // of a unix path's peer, besides its own
    size_t group_count;

    // The daemon's ends, in the numbers that the session service watches.
    int bell;
    int channel;
    // What the keeper takes over: the real connection and master, its end of
    // the bell, the program's end of the channel. Of these the daemon has
    // copies until the keeper runs; -1 then.
    int connection;
    int master;
    int keeper_bell;
    int program_channel;

    int64_t deadline_ms; // until when the keeper must speak; 0 once its program
                         // runs
    int64_t end_by_ms;   // until when it must have begun to end the session,
                         // then, to have ended it; 0: nobody wants it to
    int status;          // of the program, -1 while it is not known
    uint32_t heard;      // the kind of the keeper's last message
    pid_t program;       // forked, but not yet let go
    bool cleaned;        // the keeper has cleaned the line
    bool empty;          // nobody of the session is left
};

// The session on a line, or null. On other threads with the lock held.
kit_entry *kit_entry_at(int line);

// Makes one that is in no table yet. Null without memory.
kit_entry *kit_entry_make(int line);
void kit_entry_free(kit_entry *entry);

void kit_table_put(kit_entry *entry);
void kit_table_take(const kit_entry *entry);

// The first line from this one on that has a session; TTY_LINES when none has.
int kit_table_next(int line);

// Sessions of a service, and of those the ones of one peer.
struct kit_counts {
    uint32_t of_service;
    uint32_t of_peer;
};
kit_counts kit_table_count(const kit_node *node, const kit_peer_key *key);

// Closes a descriptor that may be none, and makes it one.
void kit_close(int *fd);
