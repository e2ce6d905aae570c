// The table of lines, once, again and again, and while lines are locked.
#include "tests/system/programs/ttyctl_run.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/wait.h"

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
                   "there is no line store " + runtime +
                       "/mng/tty: No such file");
    expect_message(run({"lines", "--watch", "1"}), 1, "no line store");
}

// Each of them would keep the library for ever.
TEST_F(TtyctlTest, lines_whose_files_are_traps_cost_no_time)
{
    std::filesystem::create_directories(info(1));
    ASSERT_EQ(mkfifo(info(2).c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", info(3));
    std::filesystem::create_symlink(info(6), info(4));
    store(5, "");
    std::filesystem::resize_file(info(5), 1 << 20);
    store(6, "TTYDEV=/dev/pts/1\r\n");
    store(7, "TTYDEV=/dev/pts/1\r\n");
    ASSERT_EQ(mkfifo((info(7) + ".lock").c_str(), 0600), 0);
    store(8, "TTYDEV=/dev/pts/1\r\n");
    const holder other(info(8) + ".lock");

    const auto before = std::chrono::steady_clock::now();
    const auto table = rows_of(run({"lines", "--timeout", "1"}).out);
    const auto took = std::chrono::steady_clock::now() - before;
    // One of them alone would cost the library's caller ten seconds.
    EXPECT_LT(took, std::chrono::milliseconds(PATIENCE_MS / 2));
    std::vector<std::string> states;
    for (const auto &cells : table) {
        states.push_back(cells.back());
    }
    const std::vector<std::string> expected = {
        "unreadable", "unreadable", "unreadable", "unreadable",
        "unreadable", "login",      "login",      "locked"};
    EXPECT_EQ(states, expected);
}

// Python reads the text and prints what it holds in one line.
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

TEST_F(TtyctlTest, watch_redraws_with_what_is_new_until_interrupted)
{
    store(5, "LOGNAME=first\r\n");
    const pid_t pid = start({"lines", "--watch", "1"});

    ASSERT_TRUE(support::wait_until(
        [&] {
            return contains(output(), "first");
        },
        PATIENCE_MS));
    store(5, "LOGNAME=second\r\n");
    ASSERT_TRUE(support::wait_until(
        [&] {
            return count_of(output(), "second") >= 2;
        },
        PATIENCE_MS));
    ASSERT_EQ(kill(pid, SIGINT), 0);
    const outcome result = finish(pid);
    EXPECT_EQ(result.signal, SIGINT);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(count_of(result.out, "LINE USER"), count_of(result.out, "\n\n"));
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
                return count_of(output(), "alice") >= 2;
            },
            PATIENCE_MS));
        kill(pid, SIGTERM);
        EXPECT_EQ(finish(pid).signal, SIGTERM);
    }
}

TEST_F(TtyctlTest, watch_clears_a_terminal)
{
    store(5, "LOGNAME=alice\r\n");
    const operator_terminal screen;
    const pid_t pid = start({"lines", "--watch", "1"}, screen.slave);

    const std::string text = screen.shown("alice", 2);
    EXPECT_EQ(text.rfind("\033[H\033[2JLINE", 0), 0U) << text;
    EXPECT_EQ(count_of(text, "\033[H\033[2J"), 2);
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

TEST_F(TtyctlTest, locked_lines_cost_the_table_one_time_together)
{
    std::vector<std::unique_ptr<holder>> others;
    for (unsigned int line = 100; line < 120; line++) {
        store(line, "LOGNAME=alice\r\nTTYDEV=/dev/pts/1\r\n");
        others.push_back(std::make_unique<holder>(info(line) + ".lock"));
    }
    store(50, "LOGNAME=bob\r\nTTYDEV=/dev/pts/2\r\n");
    store(200, "LOGNAME=carol\r\nTTYDEV=/dev/pts/3\r\nLOGSUCC=1\r\n");

    // Two seconds for each would be forty.
    const auto before = std::chrono::steady_clock::now();
    const outcome result = run({"lines"});
    const auto took = std::chrono::steady_clock::now() - before;
    expect_done(result);
    EXPECT_LT(took, std::chrono::milliseconds(PATIENCE_MS));

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
    ASSERT_EQ(rows_of(result.out).size(), 1U) << result.out;
    EXPECT_EQ(rows_of(result.out)[0][1], "alice");
}
