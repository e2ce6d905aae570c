// The pool of lines: ranges by protocol, one common occupancy. Protocols may
// share lines; a line has one owner at a time whatever the ranges say.
#include "programs/ttylined/pool.h"

#include <algorithm>

#include "programs/shared/parse.h"

// Lines that can carry a session of the network.
constexpr line_range usable[] = {{258, 1148}, {1421, 1585}};

void pool_init(line_pool &pool)
{
    pool.lines.fill(pool_line{});
    for (std::vector<line_range> &ranges : pool.ranges) {
        ranges.assign(std::begin(usable), std::end(usable));
    }
}

static bool is_usable(const line_range &range)
{
    return std::any_of(
        std::begin(usable), std::end(usable), [&](const line_range &all) {
            return range.low >= all.low && range.high <= all.high;
        });
}

static bool parse_range(const std::string &text, line_range &range,
                        std::string &error)
{
    const std::size_t dash = text.find('-');

    if (dash == std::string::npos ||
        !parse_number(text.substr(0, dash), 0, TTY_LINES - 1, range.low) ||
        !parse_number(text.substr(dash + 1), 0, TTY_LINES - 1, range.high) ||
        range.low > range.high) {
        error = "'" + text + "' is no range of lines, LO-HI is expected";
        return false;
    }
    if (!is_usable(range)) {
        error = "range " + text + " leaves the usable lines " +
                "258-1148 and 1421-1585";
        return false;
    }
    return true;
}

bool pool_set_ranges(line_pool &pool, const std::string &text,
                     std::string &error)
{
    const std::size_t equals = text.find('=');
    int protocol = 0;

    if (equals == std::string::npos ||
        !parse_number(text.substr(0, equals), 0, POOL_PROTOCOLS - 1,
                      protocol)) {
        error = "'" + text + "': PROTO=LO-HI with a protocol 0 to 11 is " +
                "expected";
        return false;
    }

    std::vector<line_range> ranges;
    std::size_t start = equals + 1;
    while (start != 0) {
        const std::size_t comma = text.find(',', start);
        line_range range = {};
        if (!parse_range(text.substr(start, comma - start), range, error)) {
            return false;
        }
        ranges.push_back(range);
        start = comma + 1;
    }
    std::sort(ranges.begin(), ranges.end(),
              [](const line_range &a, const line_range &b) {
                  return a.low < b.low;
              });
    pool.ranges[static_cast<std::size_t>(protocol)] = ranges;
    return true;
}

const pool_line *pool_find(const line_pool &pool, int ttyno)
{
    if (ttyno < 0 || ttyno >= TTY_LINES) {
        return nullptr;
    }
    return &pool.lines[static_cast<std::size_t>(ttyno)];
}

// The same for a pool that may be changed.
static pool_line *find_line(line_pool &pool, int ttyno)
{
    return const_cast<pool_line *>(pool_find(pool, ttyno));
}

static int lowest_free(const line_pool &pool, const line_range &range)
{
    for (int ttyno = range.low; ttyno <= range.high; ttyno++) {
        if (pool_find(pool, ttyno)->state == line_state::unused) {
            return ttyno;
        }
    }
    return -1;
}

static std::vector<line_range> ranges_of(const line_pool &pool, int protocol)
{
    if (protocol >= 0 && protocol < POOL_PROTOCOLS) {
        return pool.ranges[static_cast<std::size_t>(protocol)];
    }
    return {std::begin(usable), std::end(usable)};
}

static int lowest_free_of(const line_pool &pool, int protocol)
{
    for (const line_range &range : ranges_of(pool, protocol)) {
        const int ttyno = lowest_free(pool, range);
        if (ttyno >= 0) {
            return ttyno;
        }
    }
    return -1;
}

line_facts *pool_facts(line_pool &pool, int ttyno)
{
    pool_line *line = find_line(pool, ttyno);

    return line == nullptr ? nullptr : &line->facts;
}

static void assign(pool_line &line, unsigned client, const tty_cmsg &report,
                   int ttyno)
{
    line.state = line_state::assigned;
    line.client = client;
    line.session_pid = 0;
    line.assignment = report;
    line.assignment.ttyno = ttyno;
    line.facts = {};
}

static void set_free(pool_line &line)
{
    line.state = line_state::unused;
    line.facts = {};
}

int pool_take(line_pool &pool, unsigned client, const tty_cmsg &report)
{
    const int ttyno = lowest_free_of(pool, report.protocol);
    pool_line *line = find_line(pool, ttyno);

    if (line == nullptr) {
        return -1;
    }
    assign(*line, client, report, ttyno);
    return ttyno;
}

static bool may_have(const line_pool &pool, int protocol, int ttyno)
{
    const std::vector<line_range> ranges = ranges_of(pool, protocol);

    return std::any_of(ranges.begin(), ranges.end(),
                       [&](const line_range &range) {
                           return ttyno >= range.low && ttyno <= range.high;
                       });
}

bool pool_take_only(line_pool &pool, unsigned client, const tty_cmsg &report,
                    int ttyno)
{
    pool_line *line = find_line(pool, ttyno);

    if (line == nullptr || line->state != line_state::unused ||
        !may_have(pool, report.protocol, ttyno)) {
        return false;
    }
    assign(*line, client, report, ttyno);
    return true;
}

static bool same_connection(const tty_cmsg &a, const tty_cmsg &b)
{
    return a.sockfd == b.sockfd && a.accept_id == b.accept_id;
}

bool pool_confirm(line_pool &pool, unsigned client, const tty_cmsg &record)
{
    pool_line *line = find_line(pool, record.ttyno);

    if (line == nullptr || line->state != line_state::assigned ||
        line->client != client || !same_connection(line->assignment, record)) {
        return false;
    }
    line->state = line_state::running;
    line->session_pid = record.pid;
    return true;
}

// A failure after the session record existed is told twice: a line clean,
// whose connection fields mean nothing, then the assignment sent back. The
// first frees the line, so the second may find it in other hands, even in
// those of the same client: it is known by the connection it names.
static bool is_late_answer(const pool_line &line, unsigned client,
                           const tty_cmsg &record)
{
    return line.late_client == client && line.late_sockfd == record.sockfd &&
           line.late_accept_id == record.accept_id;
}

static void expect_late_answer(pool_line &line)
{
    line.late_client = line.client;
    line.late_sockfd = line.assignment.sockfd;
    line.late_accept_id = line.assignment.accept_id;
}

clean_result pool_clean(line_pool &pool, unsigned client,
                        const tty_cmsg &record)
{
    pool_line *line = find_line(pool, record.ttyno);

    if (line == nullptr) {
        return clean_result::not_owner;
    }
    if (is_late_answer(*line, client, record)) {
        line->late_client = 0;
        return clean_result::late_answer;
    }
    if (line->state == line_state::unused || line->client != client) {
        return clean_result::not_owner;
    }
    if (line->state == line_state::assigned &&
        !same_connection(line->assignment, record)) {
        expect_late_answer(*line);
    }
    set_free(*line);
    return clean_result::freed;
}

std::size_t pool_drop_client(line_pool &pool, unsigned client,
                             bool keep_running)
{
    std::size_t left = 0;

    for (pool_line &line : pool.lines) {
        if (line.state == line_state::unused || line.client != client) {
            continue;
        }
        if (keep_running && line.state == line_state::running) {
            left++;
        } else {
            set_free(line);
        }
    }
    return left;
}

std::size_t pool_hand_over(line_pool &pool, unsigned from, unsigned to)
{
    std::size_t count = 0;

    for (pool_line &line : pool.lines) {
        if (line.state != line_state::unused && line.client == from) {
            line.client = to;
            count++;
        }
    }
    return count;
}
