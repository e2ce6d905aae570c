// Lines of a login daemon that has gone without cleaning them: it was killed,
// and the processes of its sessions with it.
#pragma once

#include <string>
#include <vector>

#include "programs/ttylined/pool.h"

struct left_line {
    int ttyno;
    std::string session; // SESSIONID of the line
};

// What the lines of a client say of sessions. Asked before they are free for
// others: the next session on a line has another id. Lines of sessions that
// leave no id are not listed, as nobody could tell them from the next.
std::vector<left_line> left_lines_of(const line_pool &pool, unsigned client);

// Cleans them, in a process of its own: a disk or a lock may take its time.
void left_lines_clean(const std::vector<left_line> &lines);
