// The connection of one login daemon: records in and out. What they ask for
// is none of its business.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

#include <ttyline/vc.h>

constexpr std::size_t RECORD_SIZE = sizeof(tty_cmsg);
constexpr std::size_t RECORDS_PER_READ = 32;

// A listen request and what became of it.
struct service {
    tty_cmsg request;
    const char *state;
};

struct client {
    int fd = -1;
    unsigned number = 0;
    pid_t peer_pid = 0; // of the process that connected
    std::array<char, RECORDS_PER_READ *RECORD_SIZE> in = {};
    std::size_t in_used = 0;
    std::deque<tty_cmsg> out;
    std::size_t out_sent = 0; // bytes of the first record
    bool deaf = false;        // it can be read from, no longer written to
    bool renewing = false;    // its last record said that a listen failed
    bool doomed = false;      // leaves at the end of this turn
    std::vector<service> services;
};

// By their numbers, of which none is used twice.
using client_table = std::map<unsigned, client>;

// A note about a client in the trace.
void client_note(unsigned number, const std::string &text);

// Queues a record and sends what can be sent at once. A client that leaves too
// much unread is doomed.
void client_send(client &cli, const tty_cmsg &record);

// Sends what can be sent of the queue.
void client_flush(client &cli);

// Reads once; false when there was nothing to read. A client that has gone is
// doomed.
bool client_receive(client &cli);

// Takes the next whole record off what was read; false when there is none, or
// none from a client that is doomed.
bool client_next(client &cli, tty_cmsg &record);
