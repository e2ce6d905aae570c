// Which line belongs to whom. The pool knows nothing of sockets: clients are
// numbers that are never used twice.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <ttyline/vc.h>

constexpr int POOL_PROTOCOLS = 12;

struct line_range {
    int low;
    int high;
};

enum class line_state {
    unused,
    assigned, // the client was told, its answer is still to come
    running,  // the client confirmed a session
};

// What the programs on a line told about it. It belongs to one use of the
// line: assigning and freeing the line both clear it, as a request may arrive
// after the line was freed and must not be taken for the next session's.
struct line_facts {
    bool logged_in = false;
    std::optional<uint32_t> speed;
    std::optional<uint32_t> session_timeout;
    std::optional<uint32_t> exec_timeout;
};

struct pool_line {
    line_state state = line_state::unused;
    unsigned client = 0;
    int32_t session_pid = 0;
    tty_cmsg assignment = {};
    line_facts facts;

    // A failed assignment whose second record is still to come.
    unsigned late_client = 0;
    int32_t late_sockfd = 0;
    int32_t late_accept_id = 0;
};

struct line_pool {
    std::array<pool_line, TTY_LINES> lines;
    std::array<std::vector<line_range>, POOL_PROTOCOLS> ranges;
};

enum class clean_result {
    freed,
    late_answer, // second record of a failed assignment, nothing to free
    not_owner,
};

// Every protocol gets all usable lines.
void pool_init(line_pool &pool);

// Replaces the ranges of one protocol; text is PROTO=LO-HI[,LO-HI...]. On
// failure nothing changes and error says why.
bool pool_set_ranges(line_pool &pool, const std::string &text,
                     std::string &error);

// Gives the lowest free line of the report's protocol to the client; -1 when
// there is none. A protocol out of range may use every usable line.
int pool_take(line_pool &pool, unsigned client, const tty_cmsg &report);

// The same for this line alone: false when it is in use, or none of those of
// the report's protocol.
bool pool_take_only(line_pool &pool, unsigned client, const tty_cmsg &report,
                    int ttyno);

// An alloc-ok record; false when it fits no assignment of this client.
bool pool_confirm(line_pool &pool, unsigned client, const tty_cmsg &record);

// A line-clean record or the negative answer to an assignment.
clean_result pool_clean(line_pool &pool, unsigned client,
                        const tty_cmsg &record);

// Frees the lines of a client, or only those without a confirmed session.
// Returns how many it still has.
std::size_t pool_drop_client(line_pool &pool, unsigned client,
                             bool keep_running);

// Hands all lines of one client to another; returns how many.
std::size_t pool_hand_over(line_pool &pool, unsigned from, unsigned to);

// The line, or a null pointer for a number that is none.
const pool_line *pool_find(const line_pool &pool, int ttyno);

// What is known of the line, to be changed; likewise.
line_facts *pool_facts(line_pool &pool, int ttyno);
