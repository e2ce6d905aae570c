// Which accept report gets a line, and when.
#pragma once

#include <cstdint>
#include <list>

#include <ttyline/tty.h>
#include <ttyline/vc.h>

#include "programs/ttylined/client.h"
#include "programs/ttylined/pool.h"

struct line_hold {
    bool on = false;
    int except = TTY_LINES; // the one line that is assigned; 1586: none
    int64_t until = 0;      // of the monotonic clock; 0: until released
};

// An accept report that a hold keeps from its line.
struct waiting_report {
    unsigned client;
    tty_cmsg record;
};

struct assignments {
    line_pool pool;
    line_hold hold;
    std::list<waiting_report> waiting;
};

// Answers the report, or lets it wait. Those that wait already come first.
void assign_report(assignments &lines, client_table &clients, client &cli,
                   const tty_cmsg &report);

// Ends a hold whose time is over and answers what need not wait any longer.
void assign_waiting(assignments &lines, client_table &clients);

// Takes the place of a hold that is there. No seconds: until released.
void hold_begin(line_hold &hold, int except, int seconds);

// False when nothing was held.
bool hold_end(line_hold &hold);
