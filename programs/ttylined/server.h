// The state of the daemon. One thread owns all of it. The list shows who knows
// whom; each file uses those below it alone.
//
//     main                    options, start and end
//     loop                    one wait, then everything that became ready
//     operators               their connections
//     command                 what they type
//     order answer            what login daemons and they are told
//     daemons                 login daemons: what they ask for
//     admin                   requests of the line library
//     left_lines              lines of daemons that were killed
//     assign                  which report gets a line and when; the hold
//     client                  a login daemon's connection
//     accept trace            what all of them need of the process
//     pool record request     lines, records and requests as such
//     clock text_in text_out unix_listener watch runtime
#pragma once

#include "programs/ttylined/admin.h"
#include "programs/ttylined/assign.h"
#include "programs/ttylined/daemons.h"

struct server {
    assignments lines;
    admin_side admin;
    login_daemons daemons;
    bool ending = false;
};
