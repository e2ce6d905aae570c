// The table of lines, from their files and without the library, which waits for
// whatever lies there. Locked lines are put off until all others have been read
// and get what is left of one time for all of them, so that many locked lines
// cost no more than one.
#include "programs/ttyctl/lines.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <set>
#include <thread>

#include <libsmartcols/libsmartcols.h>
#include <unistd.h>

#include "programs/shared/info_file.h"
#include "programs/ttyctl/guard.h"
#include "programs/ttyctl/report.h"
#include "programs/ttyctl/store.h"
#include "programs/ttyctl/text.h"

constexpr std::chrono::milliseconds LOOK_AGAIN(10);
static const char CLEAR_SCREEN[] = "\033[H\033[2J";

struct line_row {
    std::string user;
    std::string peer;
    std::string device;
    std::string protocol;
    std::string idle;
    std::string state;
};

enum column {
    COL_LINE,
    COL_USER,
    COL_PEER,
    COL_DEVICE,
    COL_PROTOCOL,
    COL_IDLE,
    COL_STATE
};

// How much of the terminal's width a column gets, and what it may lose.
struct column_form {
    const char *name;
    double width;
    int flags;
    int json_type;
};

static const column_form columns[] = {
    {"LINE", 5, SCOLS_FL_RIGHT, SCOLS_JSON_NUMBER},
    {"USER", 0.2, SCOLS_FL_TRUNC, SCOLS_JSON_STRING},
    {"PEER", 0.2, SCOLS_FL_TRUNC, SCOLS_JSON_STRING},
    {"DEVICE", 0.1, SCOLS_FL_TRUNC, SCOLS_JSON_STRING},
    {"PROTOCOL", 8, SCOLS_FL_TRUNC, SCOLS_JSON_STRING},
    {"IDLE", 4, SCOLS_FL_TRUNC, SCOLS_JSON_STRING},
    {"STATE", 9, 0, SCOLS_JSON_STRING},
};

// A line keeps its TTYDEV after a session; the reset sets TTYPID to -1.
static const char *state_of(std::map<std::string, std::string> &values)
{
    if (values["TTYDEV"].empty() || values["TTYPID"] == "-1") {
        return "free";
    }
    return values["LOGSUCC"] == "1" ? "logged in" : "login";
}

static line_row make_row(std::map<std::string, std::string> values)
{
    const std::string &name = values["PEERNAME"];

    return {values["LOGNAME"], name.empty() ? values["SOCKADDR"] : name,
            values["TTYDEV"],  values["PROTOCOL"],
            values["IDLE"],    state_of(values)};
}

static line_row state_only(const char *state)
{
    line_row row;

    row.state = state;
    return row;
}

// A set replaces the file as a whole, so nobody has to be kept from it
// meanwhile.
static line_row read_row(unsigned int line)
{
    line_values values;

    return read_info(info_to_read(line), values) ? make_row(values.of)
                                                 : state_only("unreadable");
}

using line_rows = std::map<unsigned int, line_row>;

// Reads what nobody holds at this moment, and takes it off the list.
static void read_unlocked(std::list<unsigned int> &lines, line_rows &rows)
{
    for (auto line = lines.begin(); line != lines.end();) {
        if (lock_holder(lock_of(info_to_read(*line))) != 0) {
            ++line;
            continue;
        }
        rows[*line] = read_row(*line);
        line = lines.erase(line);
    }
}

static line_rows read_rows(const std::set<unsigned int> &found,
                           const invocation &call)
{
    std::list<unsigned int> left(found.begin(), found.end());
    line_rows rows;

    const time_point deadline = deadline_of(call);
    read_unlocked(left, rows);
    while (!left.empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(LOOK_AGAIN);
        read_unlocked(left, rows);
    }
    for (const unsigned int line : left) {
        rows[line] = state_only("locked");
    }
    return rows;
}

// The table writes what is not printable ASCII as \xHH, as the program keeps
// to the C locale; JSON passes bytes on and must get well-formed ones.
static int set_cell(libscols_line *row, column cell, const std::string &value,
                    bool json)
{
    if (value.empty()) {
        return json ? 0 : scols_line_set_data(row, cell, "-");
    }
    return scols_line_set_data(row, cell,
                               json ? utf8_only(value).c_str() : value.c_str());
}

static bool add_row(libscols_table *table, unsigned int line,
                    const line_row &row, bool json)
{
    libscols_line *cells = scols_table_new_line(table, nullptr);

    return cells != nullptr &&
           set_cell(cells, COL_LINE, std::to_string(line), json) == 0 &&
           set_cell(cells, COL_USER, row.user, json) == 0 &&
           set_cell(cells, COL_PEER, row.peer, json) == 0 &&
           set_cell(cells, COL_DEVICE, row.device, json) == 0 &&
           set_cell(cells, COL_PROTOCOL, row.protocol, json) == 0 &&
           set_cell(cells, COL_IDLE, row.idle, json) == 0 &&
           set_cell(cells, COL_STATE, row.state, json) == 0;
}

static bool add_columns(libscols_table *table)
{
    for (const column_form &form : columns) {
        libscols_column *added =
            scols_table_new_column(table, form.name, form.width, form.flags);
        if (added == nullptr ||
            scols_column_set_json_type(added, form.json_type) != 0) {
            return false;
        }
    }
    return true;
}

static bool fill_table(libscols_table *table, const line_rows &rows, bool json)
{
    if (scols_table_set_name(table, "lines") != 0 ||
        scols_table_enable_json(table, json ? 1 : 0) != 0 ||
        !add_columns(table)) {
        return false;
    }
    for (const auto &[line, row] : rows) {
        if (!add_row(table, line, row, json)) {
            return false;
        }
    }
    return true;
}

static bool make_table(const line_rows &rows, bool json, std::string &text)
{
    libscols_table *table = scols_new_table();
    char *printed = nullptr;

    const bool made = table != nullptr && fill_table(table, rows, json) &&
                      scols_print_table_to_string(table, &printed) == 0;
    if (made && printed != nullptr) {
        text = printed;
        // The table's last line comes without its end, the JSON text with.
        if (!text.empty() && text.back() != '\n') {
            text += '\n';
        }
    }
    std::free(printed);
    scols_unref_table(table);
    return made;
}

static int print_lines(const invocation &call)
{
    std::set<unsigned int> found;
    std::string directory;
    std::string text;

    if (!find_lines(found, directory)) {
        return fail(EXIT_FAILED, "cannot read the line store " + directory +
                                     ": " + std::strerror(errno));
    }
    if (!make_table(read_rows(found, call), call.json, text)) {
        return fail(EXIT_FAILED, "cannot make the table: out of memory");
    }
    if (call.watch > 0 && !call.json) {
        text = isatty(STDOUT_FILENO) == 1 ? CLEAR_SCREEN + text : text + "\n";
    }
    return print(text);
}

int run_lines(const invocation &call)
{
    int status = print_lines(call);

    while (call.watch > 0 && status == EXIT_DONE) {
        std::this_thread::sleep_for(std::chrono::seconds(call.watch));
        status = print_lines(call);
    }
    return status;
}
