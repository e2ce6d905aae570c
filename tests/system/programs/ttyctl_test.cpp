// The operator's command as its operator sees it: help, usage and values.
#include "tests/system/programs/ttyctl_run.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

static const char *const command_names[] = {
    "lines", "get",  "set",     "reset",   "login-ok", "login-failed",
    "cfg",   "hold", "release", "service", "speed"};

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

TEST_F(TtyctlTest, nothing_is_read_or_written_through_what_is_no_plain_file)
{
    const std::string victim = root + "/victim";
    write_file(victim, "LOGNAME=victim\r\n");
    for (const char *end : {"", ".tmp", ".lock"}) {
        const std::string planted = info(5) + end;
        std::filesystem::create_symlink(victim, planted);
        for (const words &arguments :
             std::vector<words>{{"get", "5", "LOGNAME"},
                                {"set", "5", "LOGNAME", "x"},
                                {"reset", "5"},
                                {"login-failed", "5"}}) {
            expect_message(run(arguments), 1, planted + " is no plain file");
        }
        std::filesystem::remove(planted);
    }
    ASSERT_EQ(mkfifo(info(5).c_str(), 0600), 0);
    expect_message(run({"get", "5", "LOGNAME"}), 1, "is no plain file");
    EXPECT_EQ(read_file(victim), "LOGNAME=victim\r\n");
}

// A file system of its own, with no page left for a file's content.
class TtyctlFull : public TtyctlTest
{
  protected:
    void SetUp() override
    {
        TtyctlTest::SetUp();
        runtime = root + "/full";
        std::filesystem::create_directories(runtime);
        ASSERT_EQ(
            mount("none", runtime.c_str(), "tmpfs", 0, "size=64k,mode=0700"), 0)
            << strerror(errno);
        std::filesystem::create_directories(runtime + "/mng/tty");
        store(5, "LOGNAME=alice\r\nTTYDEV=/dev/pts/1\r\nLOGSUCC=0\r\n");
        // The library's log has its room already.
        write_file(path(".tty_lib_dump.txt"), std::string(4096, 'x'));
        std::ofstream(runtime + "/filler") << std::string(1 << 20, 'x');
    }

    void TearDown() override
    {
        EXPECT_EQ(umount(runtime.c_str()), 0) << strerror(errno);
        TtyctlTest::TearDown();
    }
};

TEST_F(TtyctlFull, set_says_that_its_value_is_not_there)
{
    expect_message(run({"set", "5", "PEERNAME", "host"}), 1,
                   "line 5: PEERNAME is not in " + info(5));
}

TEST_F(TtyctlFull, login_and_reset_say_so_too)
{
    expect_message(run({"login-failed", "5"}), 1, "LOGSUCC is not in");
    expect_message(run({"reset", "5"}), 1, "is the disk full?");
}

TEST_F(TtyctlFull, a_store_that_cannot_be_written_is_said_and_the_log_named)
{
    ASSERT_EQ(mount("none", runtime.c_str(), nullptr, MS_REMOUNT | MS_RDONLY,
                    nullptr),
              0);
    expect_message(run({"set", "5", "LOGNAME", "x"}), 1,
                   "line 5 cannot be stored in " + info(5) + "; see " +
                       path(".tty_lib_dump.txt"));
    expect_message(run({"reset", "5"}), 1, "line 5 cannot be stored");
    expect_message(run({"login-failed", "5"}), 1, "line 5 cannot be stored");
    expect_message(run({"--timeout", "60", "login-ok", "5"}), 1,
                   "line 5 cannot be stored");
}

TEST_F(TtyctlTest, a_store_is_made_by_no_command)
{
    runtime = root + "/none";
    std::filesystem::create_directories(runtime);

    for (const words &arguments : std::vector<words>{{"lines"},
                                                     {"get", "5", "LOGNAME"},
                                                     {"set", "5", "IDLE", "1"},
                                                     {"reset", "5"},
                                                     {"login-ok", "5"},
                                                     {"login-failed", "5"},
                                                     {"cfg", "5", "SPEED", "1"},
                                                     {"hold", "5"},
                                                     {"release"},
                                                     {"service", "4"}}) {
        expect_message(run(arguments), 1, "there is no line store");
        EXPECT_TRUE(std::filesystem::is_empty(runtime)) << arguments[0];
    }
    expect_done(run({"speed", "9600"}));
}

// Root's files would be written through links that somebody planted.
TEST_F(TtyctlTest, a_store_that_others_can_change_is_refused)
{
    store(5, "LOGNAME=alice\r\n");
    for (const char *name : {"/mng/tty", "/mng"}) {
        ASSERT_EQ(chmod((root + name).c_str(), 0777), 0);
        expect_message(run({"set", "5", "LOGNAME", "x"}), 1,
                       "can be written by others");
        expect_message(run({"lines"}), 1, "can be written by others");
        ASSERT_EQ(chmod((root + name).c_str(), 0700), 0);
    }
    EXPECT_EQ(read_file(info(5)), "LOGNAME=alice\r\n");
}

TEST_F(TtyctlTest, a_runtime_directory_that_is_too_long_is_said)
{
    runtime = root + "/" + std::string(120, 'd');
    std::filesystem::create_directories(runtime + "/mng/tty");

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
    ASSERT_EQ(rows_of(table.out).size(), 1U) << table.out;
    EXPECT_EQ(rows_of(table.out)[0][0], "0");
    EXPECT_EQ(rows_of(table.out)[0][1], "zero");
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

TEST_F(TtyctlTest, get_gives_a_program_bytes_and_a_terminal_text)
{
    store(5, "LOGNAME=a\x1b[2J\xff\r\n");

    EXPECT_EQ(run({"get", "5", "LOGNAME"}).out, "a\x1b[2J\xff\n");
    const operator_terminal screen;
    const pid_t pid = start({"get", "5", "LOGNAME"}, screen.slave);
    EXPECT_EQ(screen.shown("\n"), "a\\x1b[2J\\xff\r\n");
    expect_done(finish(pid));
}

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
