/*
 * The operator's command as its operator, and scripts, see it.
 */
#include "tests/system/programs/ttyctl_run.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/wait.h"

static const char *const command_names[] = {
    "lines", "get",  "set",     "reset",   "login-ok", "login-failed",
    "cfg",   "hold", "release", "service", "speed"};

static std::vector<std::string> split_lines(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> result;
    std::string line;

    while (std::getline(stream, line)) {
        result.push_back(line);
    }
    return result;
}

static void expect_done(const outcome &result)
{
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

static void expect_message(const outcome &result, int status,
                           const std::string &part)
{
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(contains(result.err, part)) << result.err;
    EXPECT_EQ(result.err.rfind("ttyctl: ", 0), 0U) << result.err;
    EXPECT_EQ(split_lines(result.err).size(), 1U) << result.err;
}

/* For calls that a busy machine must not make late. */
static words with_timeout(const char *seconds, const words &arguments)
{
    words all = {"--timeout", seconds};

    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

/* ---- help and usage ---- */

TEST_F(TtyctlTest, help_names_every_command_and_status)
{
    const outcome result = run({"--help"});

    expect_done(result);
    for (const char *name : command_names) {
        EXPECT_TRUE(contains(result.out, std::string("\n  ") + name + " "))
            << name;
    }
    for (const char *status :
         {"\n  0  ", "\n  1  ", "\n  2  ", "\n  3  ", "\n  4  "}) {
        EXPECT_TRUE(contains(result.out, status)) << status;
    }
}

TEST_F(TtyctlTest, every_command_has_help)
{
    for (const char *name : command_names) {
        const outcome result = run({name, "--help"});
        expect_done(result);
        EXPECT_EQ(result.out.rfind("usage: ttyctl [--timeout SECONDS] " +
                                       std::string(name),
                                   0),
                  0U)
            << result.out;
        EXPECT_GE(split_lines(result.out).size(), 3U) << name;
        for (const std::string &line : split_lines(result.out)) {
            EXPECT_LE(line.size(), 80U) << line;
        }
    }
    const outcome lines = run({"lines", "--help"});
    for (const char *state :
         {"free", "login", "logged in", "locked", "unreadable"}) {
        EXPECT_TRUE(contains(lines.out, std::string("\n  ") + state + "  "));
    }
}

TEST_F(TtyctlTest, version_is_that_of_the_project)
{
    const outcome result = run({"--version"});

    expect_done(result);
    EXPECT_EQ(result.out, "ttyctl " TTYLINE_VERSION "\n");
}

TEST_F(TtyctlTest, wrong_usage_exits_with2_and_touches_nothing)
{
    const std::vector<words> wrong = {
        {},
        {"bogus"},
        {"--bogus"},
        {"--timeout"},
        {"--timeout", "0", "lines"},
        {"--timeout", "3601", "lines"},
        {"--timeout", "1.5", "lines"},
        {"lines", "5"},
        {"lines", "--watch", "0"},
        {"lines", "--watch=x"},
        {"lines", "--except", "5"},
        {"get", "5"},
        {"get", "5", "LOGNAME", "x"},
        {"get", "--json", "5", "LOGNAME"},
        {"get", "1586", "LOGNAME"},
        {"get", "-1", "LOGNAME"},
        {"get", "+5", "LOGNAME"},
        {"get", " 5", "LOGNAME"},
        {"get", "5x", "LOGNAME"},
        {"get", "", "LOGNAME"},
        {"get", "99999999999999999999", "LOGNAME"},
        {"get", "79999", "LOGNAME"},
        {"get", "80002", "LOGNAME"},
        {"set", "5", "LOGNAME"},
        {"set", "1586", "LOGNAME", "x"},
        {"set", "5", "LOGNAME", "two\nlines"},
        {"set", "5", "LOGNAME", "return\r"},
        {"reset"},
        {"reset", "1586"},
        {"login-ok", "1586"},
        {"login-ok", "80000"},
        {"login-failed", "80000"},
        {"cfg", "5", "SPEED"},
        {"cfg", "1586", "SPEED", "9600"},
        {"cfg", "5", "TIMEOUT", "9600"},
        {"cfg", "5", "speed", "9600"},
        {"cfg", "5", "SPEED", "-1"},
        {"cfg", "5", "SPEED", "4294967296"},
        {"hold"},
        {"hold", "1801"},
        {"hold", "--except", "1586", "5"},
        {"hold", "--except", "5"},
        {"release", "5"},
        {"service", "32"},
        {"speed"},
        {"speed", "fast"},
        {"speed", "2147483648"},
    };

    for (const words &arguments : wrong) {
        const outcome result = run(arguments);
        std::string all;
        for (const std::string &word : arguments) {
            all += word + " ";
        }
        EXPECT_EQ(result.status, 2) << all;
        EXPECT_EQ(result.out, "") << all;
        EXPECT_EQ(result.err.rfind("ttyctl: ", 0), 0U) << all << result.err;
    }
    EXPECT_TRUE(std::filesystem::is_empty(root + "/mng/tty"));
}

TEST_F(TtyctlTest, a_full_standard_output_is_a_failure)
{
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    store(5, "TTYDEV=/dev/pts/5\r\n");

    for (const words &arguments : std::vector<words>{
             {"--help"}, {"lines"}, {"get", "5", "TTYDEV"}, {"speed", "50"}}) {
        const outcome result = finish(start(arguments, full));
        expect_message(result, 1, "standard output: No space left");
    }
    close(full);
}

/* ---- values ---- */

TEST_F(TtyctlTest, get_prints_what_set_stored)
{
    for (const char *line : {"1", "300", "1585", "80000", "80001"}) {
        const std::string value = std::string("alice of ") + line;
        expect_done(run({"set", line, "LOGNAME", value}));
        const outcome result = run({"get", line, "LOGNAME"});
        expect_done(result);
        EXPECT_EQ(result.out, value + "\n");
    }
    EXPECT_EQ(read_file(info(300)), "LOGNAME=alice of 300\r\n");
}

TEST_F(TtyctlTest, a_value_may_begin_with_a_dash)
{
    expect_done(run({"set", "5", "TTYPID", "-1"}));
    EXPECT_EQ(run({"get", "5", "TTYPID"}).out, "-1\n");
    expect_done(run({"set", "--timeout", "20", "5", "LOGNAME", "--help"}));
    EXPECT_EQ(run({"--timeout", "20", "get", "5", "LOGNAME"}).out, "--help\n");
}

TEST_F(TtyctlTest, an_empty_value_is_stored_and_then_absent)
{
    store(5, "LOGNAME=alice\r\n");

    expect_done(run({"set", "5", "LOGNAME", ""}));
    EXPECT_EQ(read_file(info(5)), "LOGNAME=\r\n");
    expect_message(run({"get", "5", "LOGNAME"}), 1,
                   "line 5 has no value for LOGNAME");
}

TEST_F(TtyctlTest, a_value_that_would_be_cut_is_refused)
{
    const std::string longest(1020 - 7, 'v');

    expect_done(run({"set", "5", "LOGNAME", longest}));
    EXPECT_EQ(run({"get", "5", "LOGNAME"}).out, longest + "\n");
    EXPECT_EQ(read_file(info(5)), "LOGNAME=" + longest + "\r\n");
    expect_message(run({"set", "5", "LOGNAME", longest + "v"}), 2, "too long");
    EXPECT_EQ(read_file(info(5)), "LOGNAME=" + longest + "\r\n");
}

TEST_F(TtyctlTest, an_unknown_key_is_named)
{
    store(5, "LOGNAME=alice\r\n");

    expect_message(run({"get", "5", "logname"}), 2, "unknown key 'logname'");
    expect_message(run({"set", "5", "NO\x1bSUCH", "x"}), 2,
                   "unknown key 'NO\\x1bSUCH'");
    EXPECT_EQ(read_file(info(5)), "LOGNAME=alice\r\n");
}

TEST_F(TtyctlTest, a_line_without_a_file_is_said_and_the_log_named)
{
    const outcome result = run({"get", "7", "LOGNAME"});

    expect_message(result, 1, info(7) + ": No such file");
    EXPECT_TRUE(contains(result.err, path(".tty_lib_dump.txt")));
    EXPECT_TRUE(contains(read_file(path(".tty_lib_dump.txt")), info(7)));
}

TEST_F(TtyctlTest, a_store_that_cannot_be_written_is_said_and_the_log_named)
{
    runtime = root + "/none/none";

    expect_message(run({"set", "5", "LOGNAME", "x"}), 1,
                   "line 5 cannot be stored in " + info(5));
    expect_message(run({"reset", "5"}), 1, "line 5 cannot be stored");
    expect_message(run({"login-failed", "5"}), 1, "line 5 cannot be stored");
    expect_message(run({"--timeout", "60", "login-ok", "5"}), 1,
                   "line 5 cannot be stored");
}

TEST_F(TtyctlTest, a_runtime_directory_that_is_too_long_is_said)
{
    runtime = root + "/" + std::string(120, 'd');

    for (const words &arguments : std::vector<words>{{"get", "5", "LOGNAME"},
                                                     {"set", "5", "IDLE", "1"},
                                                     {"reset", "5"},
                                                     {"login-ok", "5"},
                                                     {"hold", "5"}}) {
        expect_message(run(arguments), 1, "TMPDIR is too long");
    }
}

TEST_F(TtyctlTest, line0_is_read_from_instance0_and_written_in_its_own)
{
    std::filesystem::create_directories(root + "/inst/0/mng/tty");
    std::filesystem::create_directories(root + "/inst/3/mng/tty");
    write_file(root + "/inst/0/mng/tty/.tty_info_0", "LOGNAME=zero\r\n");
    runtime = root + "/inst/3";

    const outcome table = run({"lines"});
    expect_done(table);
    EXPECT_TRUE(contains(table.out, "   0 zero")) << table.out;
    expect_done(run({"set", "0", "LOGNAME", "three"}));
    EXPECT_EQ(read_file(info(0)), "LOGNAME=three\r\n");
    EXPECT_EQ(run({"get", "0", "LOGNAME"}).out, "zero\n");
    EXPECT_EQ(run({"lines"}).out, table.out);
}

TEST_F(TtyctlTest, line0_needs_a_directory_beside_its_own)
{
    runtime = "relative";
    std::filesystem::create_directories(root + "/relative/mng/tty");

    expect_message(run({"get", "0", "LOGNAME"}), 1,
                   "TMPDIR names no directory beside it");
    expect_done(run({"set", "0", "LOGNAME", "own"}));
    EXPECT_EQ(run({"lines"}).out, "");
}

TEST_F(TtyctlTest, reset_clears_a_session_and_nothing_else)
{
    store(5, "LOGNAME=alice\r\nTTYDEV=/dev/pts/4\r\nTTYPID=77\r\n"
             "LOGSUCC=1\r\nPEERNAME=host\r\nSPEED=9600\r\n");

    expect_done(run({"reset", "5"}));
    EXPECT_EQ(read_file(info(5)),
              "LOGNAME=\r\nTTYDEV=/dev/pts/4\r\nTTYPID=-1\r\n"
              "LOGSUCC=0\r\nPEERNAME=\r\nSPEED=9600\r\n"
              "SOCKADDR=\r\nRL_TIMEOUT=\r\nMTYPE=0\r\nSESSIONID=0\r\n"
              "IDLE=0\r\n");
}

/* ---- a terminal of the operator's own ---- */

struct terminal {
    int master = -1;
    int slave = -1;

    terminal()
    {
        master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_EQ(grantpt(master), 0);
        EXPECT_EQ(unlockpt(master), 0);
        char name[64] = {};
        EXPECT_EQ(ptsname_r(master, name, sizeof name), 0);
        slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(slave, 0);
    }

    ~terminal()
    {
        close(master);
        close(slave);
    }

    /* What was shown, until it holds the text as often as asked for. */
    std::string shown(const std::string &text, int times = 1) const
    {
        std::string all;
        int found = 0;
        char byte = 0;
        pollfd ask = {master, POLLIN, 0};

        while (found < times && poll(&ask, 1, patience_ms) == 1 &&
               read(master, &byte, 1) == 1) {
            all += byte;
            if (all.size() >= text.size() &&
                all.compare(all.size() - text.size(), text.size(), text) == 0) {
                found++;
            }
        }
        EXPECT_EQ(found, times) << all;
        return all;
    }
};

TEST_F(TtyctlTest, get_gives_a_program_bytes_and_a_terminal_text)
{
    store(5, "LOGNAME=a\x1b[2J\xff\r\n");

    EXPECT_EQ(run({"get", "5", "LOGNAME"}).out, "a\x1b[2J\xff\n");
    const terminal screen;
    const pid_t pid = start({"get", "5", "LOGNAME"}, screen.slave);
    EXPECT_EQ(screen.shown("\n"), "a\\x1b[2J\\xff\r\n");
    expect_done(finish(pid));
}

/* ---- the table ---- */

/* The columns of a row, by the places of their names in the first line. */
static std::vector<std::string> cells_of(const std::string &header,
                                         const std::string &row)
{
    std::vector<std::string> cells;
    std::vector<std::size_t> starts = {0};

    for (const char *name :
         {"USER", "PEER", "DEVICE", "PROTOCOL", "IDLE", "STATE"}) {
        starts.push_back(header.find(name));
        EXPECT_NE(starts.back(), std::string::npos) << header;
    }
    for (std::size_t i = 0; i < starts.size(); i++) {
        const std::size_t end =
            i + 1 < starts.size() ? starts[i + 1] : row.size();
        std::string cell = starts[i] < row.size()
                               ? row.substr(starts[i], end - starts[i])
                               : "";
        cell.erase(0, std::min(cell.find_first_not_of(' '), cell.size()));
        cell.erase(cell.find_last_not_of(' ') + 1);
        cells.push_back(cell);
    }
    return cells;
}

static std::vector<std::vector<std::string>> rows_of(const std::string &table)
{
    const std::vector<std::string> lines = split_lines(table);
    std::vector<std::vector<std::string>> rows;

    for (std::size_t i = 1; i < lines.size(); i++) {
        rows.push_back(cells_of(lines[0], lines[i]));
    }
    return rows;
}

using rows = std::vector<std::vector<std::string>>;

TEST_F(TtyctlTest, table_shows_every_line_with_a_file_in_order)
{
    store(300, "LOGNAME=alice\r\nPEERNAME=host.example\r\n"
               "SOCKADDR=192.0.2.7\r\nTTYDEV=/dev/pts/4\r\nPROTOCOL=6\r\n"
               "IDLE=12\r\nTTYPID=77\r\nLOGSUCC=1\r\n");
    store(20, "SOCKADDR=192.0.2.8\r\nTTYDEV=/dev/pts/5\r\n");
    store(80001, "LOGNAME=reserved\r\n");
    store(1586, "LOGNAME=beyond\r\n");
    write_file(path(".tty_info_007"), "LOGNAME=bond\r\n");
    write_file(path(".tty_info_8.tmp"), "LOGNAME=half\r\n");
    write_file(path(".tty_info_9.lock"), "");
    write_file(path(".tty_info_"), "");
    write_file(path("tty_info_4"), "");

    const outcome result = run({"lines"});
    expect_done(result);
    const rows expected = {
        {"20", "-", "192.0.2.8", "/dev/pts/5", "-", "-", "login"},
        {"300", "alice", "host.example", "/dev/pts/4", "6", "12", "logged in"},
        {"80001", "reserved", "-", "-", "-", "-", "free"}};
    EXPECT_EQ(rows_of(result.out), expected) << result.out;
}

TEST_F(TtyctlTest, the_state_follows_the_keys)
{
    store(1, "LOGSUCC=1\r\n");
    store(2, "TTYDEV=/dev/pts/1\r\nTTYPID=-1\r\nLOGSUCC=1\r\n");
    store(3, "TTYDEV=/dev/pts/1\r\nTTYPID=-11\r\nLOGSUCC=0\r\n");
    store(4, "TTYDEV=/dev/pts/1\r\nLOGSUCC=1\r\n");
    store(5, "TTYDEV=/dev/pts/1\r\nLOGSUCC=11\r\n");
    store(6, "");

    std::vector<std::string> states;
    for (const auto &cells : rows_of(run({"lines"}).out)) {
        states.push_back(cells.back());
    }
    const std::vector<std::string> expected = {"free",      "free",  "login",
                                               "logged in", "login", "free"};
    EXPECT_EQ(states, expected);
}

TEST_F(TtyctlTest, the_table_shows_strange_values_as_text)
{
    store(5, "LOGNAME=a b  c\r\nPEERNAME=\x1b[2J\t\x07\xc3\xa9\xff\n"
             "TTYDEV=/dev/\\x41\r\n");
    store(6, "LOGNAME=d\r\n");

    const outcome result = run({"lines"});
    expect_done(result);
    for (const char letter : result.out) {
        EXPECT_TRUE(letter == '\n' || (letter >= ' ' && letter <= '~'))
            << result.out;
    }
    const auto table = rows_of(result.out);
    ASSERT_EQ(table.size(), 2U) << result.out;
    EXPECT_EQ(table[0][1], "a b  c");
    EXPECT_EQ(table[0][2], "\\x1b[2J\\x09\\x07\\xc3\\xa9\\xff\\x0a");
    EXPECT_EQ(table[0][3], "/dev/\\x5cx41");
    EXPECT_EQ(table[1][1], "d");
}

TEST_F(TtyctlTest, a_store_that_is_not_there_is_said)
{
    runtime = root + "/none";

    expect_message(run({"lines"}), 1,
                   "cannot read the line store " + runtime +
                       "/mng/tty: No such file");
    expect_message(run({"lines", "--watch", "1"}), 1, "cannot read");
}

TEST_F(TtyctlTest, a_line_whose_file_is_a_directory_is_free)
{
    std::filesystem::create_directories(info(5));
    store(6, "TTYDEV=/dev/pts/1\r\n");

    const auto table = rows_of(run({"lines"}).out);
    ASSERT_EQ(table.size(), 2U);
    EXPECT_EQ(table[0].back(), "free");
    EXPECT_EQ(table[1].back(), "login");
}

/* Python reads the text and prints what it holds in one line. */
static std::string parsed(const std::string &file)
{
    const std::string command =
        "python3 -c 'import json,sys\n"
        "rows = json.load(open(sys.argv[1], encoding=\"utf-8\"))[\"lines\"]\n"
        "for row in rows: print(ascii(list(row.items())))\n"
        "' " +
        file + " 2>&1";
    FILE *pipe = popen(command.c_str(), "re");
    std::string text;
    char bytes[4096];
    std::size_t got = 0;

    while ((got = fread(bytes, 1, sizeof bytes, pipe)) > 0) {
        text.append(bytes, got);
    }
    EXPECT_EQ(pclose(pipe), 0) << text;
    return text;
}

TEST_F(TtyctlTest, json_is_well_formed_whatever_is_stored)
{
    store(5, "LOGNAME=a \"b\" \\c\x1b\t\x7f\r\nPEERNAME=\xc3\xa9\xff\xed\xa0"
             "\x80\xf0\x9f\x98\x80\xc0\xaf\n"
             "IDLE=x\r\n");
    store(300, "TTYDEV=/dev/pts/4\r\nLOGSUCC=1\r\nPROTOCOL=6\r\n");

    expect_done(run({"lines", "--json"}));
    EXPECT_EQ(parsed(root + "/out"),
              "[('line', 5), ('user', 'a \"b\" \\\\c\\x1b\\t\\x7f'), "
              "('peer', '\\xe9\\\\xff\\\\xed\\\\xa0\\\\x80\\U0001f600"
              "\\\\xc0\\\\xaf\\n'), ('device', None), ('protocol', None), "
              "('idle', 'x'), ('state', 'free')]\n"
              "[('line', 300), ('user', None), ('peer', None), "
              "('device', '/dev/pts/4'), ('protocol', '6'), ('idle', None), "
              "('state', 'logged in')]\n");
}

TEST_F(TtyctlTest, an_empty_store_is_an_empty_table)
{
    const outcome table = run({"lines"});
    expect_done(table);
    EXPECT_EQ(table.out, "");
    const outcome json = run({"lines", "--json"});
    expect_done(json);
    EXPECT_TRUE(contains(json.out, "\"lines\""));
    EXPECT_EQ(parsed(root + "/out"), "");
}

/* ---- watching ---- */

static int count(const std::string &text, const std::string &part)
{
    int found = 0;

    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + 1)) {
        found++;
    }
    return found;
}

TEST_F(TtyctlTest, watch_redraws_with_what_is_new_until_interrupted)
{
    store(5, "LOGNAME=first\r\n");
    const pid_t pid = start({"lines", "--watch", "1"});

    ASSERT_TRUE(support::wait_until(
        [&] {
            return contains(output(), "first");
        },
        patience_ms));
    store(5, "LOGNAME=second\r\n");
    ASSERT_TRUE(support::wait_until(
        [&] {
            return count(output(), "second") >= 2;
        },
        patience_ms));
    ASSERT_EQ(kill(pid, SIGINT), 0);
    const outcome result = finish(pid);
    EXPECT_EQ(result.signal, SIGINT);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(count(result.out, "LINE USER"), count(result.out, "\n\n"));
}

TEST_F(TtyctlTest, watch_takes_its_interval_in_all_forms)
{
    store(5, "LOGNAME=alice\r\n");

    for (const words &arguments :
         std::vector<words>{{"lines", "--watch"},
                            {"lines", "--watch=1", "--json"},
                            {"lines", "--watch", "1", "--json"},
                            {"lines", "--json", "--watch"}}) {
        const pid_t pid = start(arguments);
        EXPECT_TRUE(support::wait_until(
            [&] {
                return count(output(), "alice") >= 2;
            },
            patience_ms));
        kill(pid, SIGTERM);
        EXPECT_EQ(finish(pid).signal, SIGTERM);
    }
}

TEST_F(TtyctlTest, watch_clears_a_terminal)
{
    store(5, "LOGNAME=alice\r\n");
    const terminal screen;
    const pid_t pid = start({"lines", "--watch", "1"}, screen.slave);

    const std::string text = screen.shown("alice", 2);
    EXPECT_EQ(text.rfind("\033[H\033[2JLINE", 0), 0U) << text;
    EXPECT_EQ(count(text, "\033[H\033[2J"), 2);
    kill(pid, SIGINT);
    EXPECT_EQ(finish(pid).signal, SIGINT);
}

TEST_F(TtyctlTest, watch_ends_when_nobody_reads)
{
    store(5, "LOGNAME=alice\r\n");
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t pid = start({"lines", "--watch", "1"}, ends[1]);
    close(ends[1]);
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    close(ends[0]);

    EXPECT_EQ(finish(pid).signal, SIGPIPE);
}

/* ---- locked lines ---- */

TEST_F(TtyctlTest, the_holder_of_a_line_is_named)
{
    store(5, "LOGNAME=alice\r\nLOGSUCC=7\r\n");
    const holder other(info(5) + ".lock", "log\x1b[in");
    const std::string named = "line 5 is locked by process " +
                              std::to_string(other.pid()) +
                              " (log\\x1b[in); gave up after 1 s";

    for (const words &arguments :
         std::vector<words>{{"get", "5", "LOGNAME"},
                            {"set", "5", "LOGNAME", "bob"},
                            {"reset", "5"},
                            {"login-ok", "5"},
                            {"login-failed", "5"}}) {
        expect_message(run(with_timeout("1", arguments)), 3, named);
    }
    EXPECT_EQ(read_file(info(5)), "LOGNAME=alice\r\nLOGSUCC=7\r\n");
}

TEST_F(TtyctlTest, another_line_is_not_locked)
{
    store(5, "LOGNAME=alice\r\n");
    const holder other(info(6) + ".lock");

    EXPECT_EQ(run({"get", "5", "LOGNAME"}).out, "alice\n");
}

TEST_F(TtyctlTest, line0_is_locked_where_it_is_read)
{
    std::filesystem::create_directories(root + "/inst/0/mng/tty");
    std::filesystem::create_directories(root + "/inst/3/mng/tty");
    runtime = root + "/inst/3";
    const std::string first = root + "/inst/0/mng/tty/.tty_info_0";
    write_file(first, "LOGNAME=zero\r\n");
    const holder other(first + ".lock");

    expect_message(run({"get", "--timeout", "1", "0", "LOGNAME"}), 3,
                   "line 0 is locked");
    expect_done(run({"set", "0", "LOGNAME", "own"}));
}

/* Tells when another process has opened the file: it has looked at the lock. */
class opening
{
  public:
    explicit opening(const std::string &file)
        : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
    {
        EXPECT_GE(inotify_add_watch(fd_, file.c_str(), IN_OPEN), 0);
    }
    opening(const opening &) = delete;
    opening &operator=(const opening &) = delete;
    ~opening()
    {
        close(fd_);
    }
    bool seen() const
    {
        pollfd ask = {fd_, POLLIN, 0};

        return poll(&ask, 1, patience_ms) == 1;
    }

  private:
    int fd_;
};

TEST_F(TtyctlTest, a_holder_that_lets_go_is_waited_for)
{
    store(5, "LOGNAME=alice\r\n");
    holder other(info(5) + ".lock");
    const opening look(info(5) + ".lock");
    const pid_t pid = start({"--timeout", "60", "set", "5", "LOGNAME", "bob"});

    ASSERT_TRUE(look.seen());
    EXPECT_EQ(read_file(info(5)), "LOGNAME=alice\r\n");
    other.let_go();
    expect_done(finish(pid));
    EXPECT_EQ(read_file(info(5)), "LOGNAME=bob\r\n");
}

TEST_F(TtyctlTest, locked_lines_cost_the_table_one_time_together)
{
    std::vector<std::unique_ptr<holder>> others;
    for (unsigned int line = 100; line < 120; line++) {
        store(line, "LOGNAME=alice\r\nTTYDEV=/dev/pts/1\r\n");
        others.push_back(std::make_unique<holder>(info(line) + ".lock"));
    }
    store(50, "LOGNAME=bob\r\nTTYDEV=/dev/pts/2\r\n");
    store(200, "LOGNAME=carol\r\nTTYDEV=/dev/pts/3\r\nLOGSUCC=1\r\n");

    /* Two seconds for each would be forty. */
    const auto before = std::chrono::steady_clock::now();
    const outcome result = run({"lines"});
    const auto took = std::chrono::steady_clock::now() - before;
    expect_done(result);
    EXPECT_LT(took, std::chrono::milliseconds(patience_ms));

    const auto table = rows_of(result.out);
    ASSERT_EQ(table.size(), 22U) << result.out;
    const std::vector<std::string> first = {"50", "bob", "-",    "/dev/pts/2",
                                            "-",  "-",   "login"};
    const std::vector<std::string> locked = {"119", "-", "-",     "-",
                                             "-",   "-", "locked"};
    EXPECT_EQ(table[0], first);
    EXPECT_EQ(table[20], locked);
    EXPECT_EQ(table[21].back(), "logged in");
    for (std::size_t i = 1; i <= 20; i++) {
        EXPECT_EQ(table[i].back(), "locked");
    }
}

TEST_F(TtyctlTest, a_line_that_comes_free_in_time_is_shown)
{
    store(5, "LOGNAME=alice\r\n");
    holder other(info(5) + ".lock");
    const opening look(info(5) + ".lock");
    const pid_t pid = start({"--timeout", "60", "lines"});

    ASSERT_TRUE(look.seen());
    other.let_go();
    const outcome result = finish(pid);
    expect_done(result);
    EXPECT_TRUE(contains(result.out, "alice")) << result.out;
}

/* ---- the administration daemon ---- */

TEST_F(TtyctlTest, each_request_is_sent_as_its_bytes)
{
    const listener daemon(path(".tty_rl"));
    const std::vector<std::pair<words, std::string>> requests = {
        {{"cfg", "5", "SPEED", "9600"}, "20000400050000004000040080250000"},
        {{"cfg", "5", "SESSION_TIMEOUT", "1"},
         "20000400050000008000040001000000"},
        {{"cfg", "5", "EXEC_TIMEOUT", "4294967295"},
         "200004000500000000010400ffffffff"},
        {{"hold", "1800"}, "20000400320600000008040008070000"},
        {{"hold", "--except", "5", "0"}, "20000400050000000008040000000000"},
        {{"release"}, "0010040000000000"},
        {{"login-ok", "5"}, "20000400050000000100040001000000"},
    };

    for (const auto &[arguments, bytes] : requests) {
        expect_done(run(with_timeout("60", arguments)));
        EXPECT_EQ(daemon.request(), bytes) << arguments[0];
    }
    EXPECT_EQ(run({"get", "5", "LOGSUCC"}).out, "1\n");
}

static const std::vector<words> plain_requests = {
    {"cfg", "5", "SPEED", "9600"}, {"hold", "5"}, {"release"}};

TEST_F(TtyctlTest, an_absent_daemon_is_said_with_its_socket)
{
    for (const words &arguments : plain_requests) {
        const outcome result = run(with_timeout("60", arguments));
        expect_message(result, 1, "no socket " + path(".tty_rl"));
        EXPECT_TRUE(contains(result.err, path(".tty_lib_dump.txt")));
    }
    const outcome login = run({"--timeout", "60", "login-ok", "5"});
    expect_message(login, 1, "no socket " + path(".tty_rl"));
    EXPECT_TRUE(contains(login.err, "LOGSUCC of line 5 is stored"));
    EXPECT_EQ(run({"get", "5", "LOGSUCC"}).out, "1\n");
}

TEST_F(TtyctlTest, a_socket_with_nobody_behind_it_is_said)
{
    listener daemon(path(".tty_rl"));
    daemon.stop();

    for (const words &arguments : plain_requests) {
        expect_message(run(with_timeout("60", arguments)), 1,
                       "daemon at " + path(".tty_rl") +
                           " did not take the request");
    }
}

TEST_F(TtyctlTest, a_daemon_that_takes_nothing_is_given_up)
{
    listener daemon(path(".tty_rl"), 0);
    daemon.fill();

    for (const words &arguments : plain_requests) {
        const outcome result = run(with_timeout("1", arguments));
        expect_message(result, 4,
                       "does not take requests at " + path(".tty_rl"));
        EXPECT_TRUE(contains(result.err, "gave up after 1 s"));
    }
    const outcome login = run({"--timeout", "3", "login-ok", "5"});
    expect_message(login, 4, "LOGSUCC of line 5 is stored");
    EXPECT_EQ(run({"get", "5", "LOGSUCC"}).out, "1\n");
}

TEST_F(TtyctlTest, a_failed_login_needs_no_daemon)
{
    expect_done(run({"login-failed", "5"}));
    EXPECT_EQ(read_file(info(5)), "LOGSUCC=0\r\n");
}

/* ---- services and speeds ---- */

TEST_F(TtyctlTest, a_service_is_enabled_by_its_bit)
{
    EXPECT_EQ(run({"service", "4"}).out, "enabled\n");
    EXPECT_EQ(run({"service", "5"}).out, "disabled\n");

    write_file(path(".service_cur.txt"), "2147483649");
    for (const char *service : {"0", "31"}) {
        const outcome result = run({"service", service});
        expect_done(result);
        EXPECT_EQ(result.out, "enabled\n");
    }
    const outcome result = run({"service", "4"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "disabled\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(TtyctlTest, speeds_and_codes_are_converted)
{
    EXPECT_EQ(run({"speed", "9600"}).out, std::to_string(B9600) + "\n");
    EXPECT_EQ(run({"speed", "230400"}).out, std::to_string(B230400) + "\n");
    EXPECT_EQ(run({"speed", "--code", std::to_string(B115200)}).out,
              "115200\n");
    expect_message(run({"speed", "9601"}), 1, "no such speed: 9601");
    expect_message(run({"speed", "0"}), 1, "no such speed: 0");
    expect_message(run({"speed", "--code", "16"}), 1, "no such code: 16");
}
