/*
 * The state of the daemon. One thread owns all of it.
 *
 *     ttylined.cpp          options, start and end
 *     ttylined_loop.cpp     waits, and calls the others
 *     ttylined_client.cpp   login daemons: their connections and records
 *     ttylined_assign.cpp   which report gets a line and when; the hold
 *     ttylined_admin.cpp    requests of the line library: login, settings,
 *                           hold and release
 *     ttylined_command.cpp  what an operator types
 *
 * The rest knows nothing of this state: ttylined_pool.cpp (lines and owners),
 * ttylined_record.cpp (records of login daemons), ttylined_request.cpp
 * (requests of the line library), ttylined_socket.cpp, ttylined_text.cpp.
 */
#ifndef TTYLINED_SERVER_H
#define TTYLINED_SERVER_H

#include <array>
#include <deque>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "programs/shared/text_stream.h"
#include "programs/shared/unix_listener.h"
#include "programs/ttylined/pool.h"
#include "programs/ttylined/record.h"
#include "programs/ttylined/request.h"

#include <sys/types.h>
#include <ttyline/vc.h>

constexpr std::size_t record_size = sizeof(tty_cmsg);
constexpr std::size_t records_per_read = 32;

/* A listen request and what became of it. */
struct service {
    tty_cmsg request;
    const char *state;
};

/* The connection of one login daemon. */
struct client {
    int fd = -1;
    unsigned number = 0;
    pid_t peer_pid = 0; /* of the process that connected */
    std::array<char, records_per_read *record_size> in = {};
    std::size_t in_used = 0;
    std::deque<tty_cmsg> out;
    std::size_t out_sent = 0; /* bytes of the first record */
    bool deaf = false;        /* it can be read from, no longer written to */
    bool renewing = false;    /* its last record said that a listen failed */
    bool doomed = false;      /* leaves at the end of this turn */
    std::vector<service> services;
};

/* Running sessions of a daemon that is about to connect again. */
struct parked_lines {
    unsigned client;
    pid_t peer_pid;
    long long until; /* milliseconds of the monotonic clock */
};

/* An accept report that a hold keeps from its line. */
struct waiting_report {
    unsigned client;
    tty_cmsg record;
};

struct line_hold {
    bool on = false;
    int except = TTY_LINES; /* the one line that is assigned; 1586: none */
    long long until = 0;    /* of the monotonic clock; 0: until released */
};

/* The connection of one process, or of several that it forked. */
struct admin_peer {
    int fd = -1;
    unsigned number = 0;
    std::string held; /* the beginning of a request */
};

/* Somebody who types commands. */
struct operator_peer {
    int in_fd = -1;
    text_in in;
    text_out *out = nullptr;
    text_out own_out; /* for connections of the control socket */
    bool at_end = false;
};

struct server {
    line_pool pool;
    unix_listener daemons;
    unix_listener admin;
    unix_listener control;
    int signal_fd = -1;
    std::map<unsigned, client> clients;
    unsigned last_number = 0;
    std::list<parked_lines> parked;
    std::list<waiting_report> waiting;
    line_hold hold;
    std::list<admin_peer> admins;
    unsigned last_admin = 0;
    std::list<operator_peer> operators;
    text_out standard_out;
    text_out trace_file;
    text_out *trace = nullptr;
    long long accept_again = 0; /* no descriptors were left; 0: accept */
    bool ending = false;
};

/* ttylined_client.cpp */
void client_accept(server &srv);
bool client_read(server &srv, client &cli);
void client_flush(client &cli);
void client_send(server &srv, client &cli, const tty_cmsg &record);
void client_reap(server &srv);
void parked_expire(server &srv);

/* ttylined_assign.cpp */
void assign_report(server &srv, client &cli, const tty_cmsg &report);
void assign_waiting(server &srv);
void hold_begin(server &srv, int except, int seconds);
bool hold_end(server &srv);

/* ttylined_admin.cpp */
void admin_serve(server &srv);

/* ttylined_command.cpp */
void command_run(server &srv, const std::string &line, std::string &reply);

/* ttylined_loop.cpp */
long long monotonic_ms();
void trace_note(server &srv, const std::string &text);
int accept_or_pause(server &srv, int listener);
int server_run(server &srv);

#endif
