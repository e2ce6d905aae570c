#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <filesystem>
#include <thread>

#include <ttyline/tty.h>

#include "common/timestamp.h"
#include "tests/support/fault_row.h"
#include "tests/unit/tty/console_fixture.h"
#include "tests/unit/tty/tty_fixture.h"

static const char DUMP[] = "/mng/tty/.tty_lib_dump.txt";
constexpr size_t STAMP = 16;

class Log : public tty_test
{
  protected:
    std::string dump() const
    {
        return support::slurp(path(DUMP));
    }
};

static std::string stamp_now()
{
    const time_t now = time(nullptr);
    char stamp[TTY_STAMP_SIZE];
    return tty_ctime_r(&now, stamp);
}

TEST_F(Log, line_is_the_stamp_and_the_text_with_its_own_end)
{
    const std::string before = stamp_now();
    tty_debug_msg(0, "%s(%d): 100%%\r\n", "f", 7);
    const std::string after = stamp_now();
    const std::string line = dump();
    EXPECT_EQ(line.substr(STAMP), "f(7): 100%\r\n");
    EXPECT_TRUE(line.substr(0, STAMP) == before ||
                line.substr(0, STAMP) == after);
}

TEST_F(Log, no_line_end_is_added)
{
    tty_debug_msg(0, "%s", "one");
    tty_debug_msg(0, "%s", "");
    const std::string log = dump();
    EXPECT_EQ(log.size(), 2 * STAMP + 3);
    EXPECT_EQ(log.substr(STAMP, 3), "one");
}

TEST_F(Log, lines_are_appended)
{
    tty_debug_msg(0, "one\n");
    tty_debug_msg(0, "two\n");
    EXPECT_EQ(tty_log(), messages({"one\n", "two\n"}));
}

TEST_F(Log, file_is_created_open_to_all_under_the_creation_mask)
{
    struct stat status = {};
    tty_debug_msg(0, "one\n");
    ASSERT_EQ(stat(path(DUMP).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
}

TEST_F(Log, file_is_opened_for_each_line)
{
    tty_debug_msg(0, "one\n");
    ASSERT_EQ(unlink(path(DUMP).c_str()), 0);
    tty_debug_msg(0, "two\n");
    EXPECT_EQ(tty_log(), messages({"two\n"}));
}

TEST_F(Log, line_holds_at_most1023_bytes_with_its_stamp)
{
    tty_debug_msg(0, "%s", std::string(1007, 'a').c_str());
    EXPECT_EQ(dump().substr(STAMP), std::string(1007, 'a'));
    ASSERT_EQ(unlink(path(DUMP).c_str()), 0);
    tty_debug_msg(0, "%s", std::string(1008, 'b').c_str());
    EXPECT_EQ(dump().substr(STAMP), std::string(1007, 'b'));
    ASSERT_EQ(unlink(path(DUMP).c_str()), 0);
    tty_debug_msg(0, "%s\n", std::string(100000, 'c').c_str());
    EXPECT_EQ(dump().substr(STAMP), std::string(1007, 'c'));
}

TEST_F(Log, of1048577_bytes_is_emptied_before_the_line)
{
    support::spill(path(DUMP), std::string(1048577, 'x'));
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(tty_log(), messages({"one\n"}));
}

TEST_F(Log, of1048576_bytes_is_not_emptied)
{
    support::spill(path(DUMP), std::string(1048576, 'x'));
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(dump().size(), 1048576 + STAMP + 4);
}

TEST_F(Log, errno_is_kept_after_a_written_line)
{
    fault_row("tty_debug_msg", "write", "EINTR, ENOSPC", "errno as it was", "",
              "");
    fault::fail("write", 1, EINTR);
    errno = ENOTTY;
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(errno, ENOTTY);
    fault::fail("write", 1, ENOSPC);
    tty_debug_msg(0, "two\n");
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(Log, errno_is_kept_after_a_dropped_trace)
{
    errno = ENOTTY;
    tty_debug_msg(1, "one\n");
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_FALSE(support::exists(path(DUMP)));
}

TEST_F(Log, trace_whose_switch_cannot_be_looked_for_is_dropped)
{
    fault_row("tty_debug_msg", "access", "EACCES", "nothing", "",
              "a trace is not written");
    fault::reset();
    fault::fail("access", 1, EACCES, 1, fault::only_path(TRACE_SWITCH_FILE));
    tty_debug_msg(1, "trace\n");
    tty_debug_msg(0, "failure\n");
    EXPECT_EQ(tty_log(), messages({"failure\n"}));
}

TEST_F(Log, errno_is_kept_when_the_file_cannot_be_opened)
{
    ASSERT_EQ(mkdir(path(DUMP).c_str(), 0777), 0);
    errno = ENOTTY;
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(errno, ENOTTY);
    setenv("TMPDIR", std::string(500, 'd').c_str(), 1);
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(Log, first_line_makes_the_directories)
{
    std::filesystem::remove_all(path("/mng"));
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(tty_log(), messages({"one\n"}));
}

TEST_F(Log, directory_that_vanishes_silences_it)
{
    tty_debug_msg(0, "one\n");
    std::filesystem::remove_all(path("/mng"));
    tty_debug_msg(0, "two\n");
    EXPECT_FALSE(support::exists(path("/mng")));
}

TEST_F(Log, lines_of_many_threads_stay_whole)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([i] {
            for (int n = 0; n < 50; n++) {
                tty_debug_msg(0, "thread %d line %02d %s\n", i, n,
                              std::string(200, 'x').c_str());
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    const messages log = tty_log();
    EXPECT_EQ(log.size(), 400u);
    for (const std::string &line : log) {
        EXPECT_EQ(line.size(), strlen("thread 0 line 00 ") + 201) << line;
    }
}

TEST_F(Log, path_of127_characters_is_used_and_one_of128_is_not)
{
    std::string prefix = runtime_dir + "/";
    prefix.append(101 - prefix.size(), 'd');
    std::filesystem::create_directories(prefix + "/mng/tty");
    std::filesystem::create_directories(prefix + "d/mng/tty");
    setenv("TMPDIR", prefix.c_str(), 1);
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(support::lines_of(prefix + DUMP).size(), 1u);
    setenv("TMPDIR", (prefix + "d").c_str(), 1);
    tty_debug_msg(0, "two\n");
    EXPECT_FALSE(support::exists(prefix + "d" + DUMP));
}

// Real switch files and the console need the root directory.
class LogAtRoot : public console_test
{
  protected:
    void SetUp() override
    {
        console_test::SetUp();
        make_directories("/mng/tty");
    }

    static void trace_on()
    {
        ASSERT_EQ(mkdir("/data", 0777), 0);
        support::spill("/data/.tty_lib_debug", "");
    }

    static void console_on()
    {
        support::spill("/mng/tty/.tty_lib_debug", "");
    }

    static void spoil_dump_file()
    {
        ASSERT_EQ(mkdir(DUMP, 0777), 0);
    }
};

TEST_F(LogAtRoot, lies_under_the_root_without_tmpdir)
{
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(tty_log(), messages({"one\n"}));
}

TEST_F(LogAtRoot, traces_are_written_only_while_the_switch_file_exists)
{
    tty_debug_msg(1, "one\n");
    EXPECT_FALSE(support::exists(DUMP));
    trace_on();
    tty_debug_msg(1, "two\n");
    ASSERT_EQ(unlink("/data/.tty_lib_debug"), 0);
    tty_debug_msg(1, "three\n");
    EXPECT_EQ(tty_log(), messages({"two\n"}));
}

TEST_F(LogAtRoot, failures_are_written_with_and_without_the_switch_file)
{
    tty_debug_msg(0, "one\n");
    trace_on();
    tty_debug_msg(0, "two\n");
    EXPECT_EQ(tty_log(), messages({"one\n", "two\n"}));
}

TEST_F(LogAtRoot, the_trace_switch_is_not_under_the_runtime_directory)
{
    setenv("TMPDIR", "/tmp", 1);
    make_directories("/tmp/data");
    support::spill("/tmp/data/.tty_lib_debug", "");
    tty_debug_msg(1, "one\n");
    EXPECT_FALSE(support::exists(std::string("/tmp") + DUMP));
}

TEST_F(LogAtRoot, missing_directory_without_switch_file_writes_nothing)
{
    make_console();
    setenv("TMPDIR", "/absent", 1);
    errno = ENOTTY;
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(console(), "");
    EXPECT_FALSE(support::exists("/absent"));
}

TEST_F(LogAtRoot, unopened_file_sends_the_line_to_the_console)
{
    make_console();
    console_on();
    spoil_dump_file();
    errno = ENOTTY;
    tty_debug_msg(0, "%s\r\n", "100% %s");
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(support::without_stamp(console()), "100% %s\r\n");
}

TEST_F(LogAtRoot, every_reason_of_a_failed_open_counts)
{
    fault_row("tty_debug_msg", "open", "ENOENT, EACCES, EMFILE, EROFS, ENOSPC",
              "nothing", "",
              "the line is on the console, if its switch file is there");
    make_console();
    console_on();
    for (const int error : {ENOENT, EACCES, EMFILE, EROFS, ENOSPC}) {
        fault::reset();
        fault::fail("open", 1, error, 1, fault::only_path(DUMP));
        tty_debug_msg(0, "one\n");
        EXPECT_EQ(support::without_stamp(console()), "one\n") << error;
    }
}

TEST_F(LogAtRoot, without_the_console_switch_the_line_is_dropped)
{
    make_console();
    spoil_dump_file();
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(console(), "");
}

TEST_F(LogAtRoot, open_file_keeps_the_console_quiet)
{
    fault_row("tty_debug_msg", "write", "ENOSPC", "nothing", "",
              "the line is lost; nothing on the console");
    make_console();
    console_on();
    tty_debug_msg(0, "one\n");
    fault::fail("write", 1, ENOSPC);
    tty_debug_msg(0, "two\n");
    EXPECT_EQ(console(), "");
}

TEST_F(LogAtRoot, dropped_trace_does_not_reach_the_console)
{
    make_console();
    console_on();
    spoil_dump_file();
    tty_debug_msg(1, "one\n");
    EXPECT_EQ(console(), "");
    trace_on();
    tty_debug_msg(1, "two\n");
    EXPECT_EQ(support::without_stamp(console()), "two\n");
}

TEST_F(LogAtRoot, the_console_switch_lies_under_the_runtime_directory)
{
    make_console();
    console_on();
    setenv("TMPDIR", "/tmp", 1);
    make_directories(std::string("/tmp") + DUMP);
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(console(), "");
    support::spill("/tmp/mng/tty/.tty_lib_debug", "");
    tty_debug_msg(0, "two\n");
    EXPECT_EQ(support::without_stamp(console()), "two\n");
}

TEST_F(LogAtRoot, path_that_does_not_fit_counts_as_a_file_that_cannot_be_opened)
{
    const std::string prefix = "/tmp/" + std::string(97, 'd');
    make_console();
    make_directories(prefix + "/mng/tty");
    support::spill(prefix + "/mng/tty/.tty_lib_debug", "");
    setenv("TMPDIR", prefix.c_str(), 1);
    tty_debug_msg(0, "one\n");
    EXPECT_EQ(support::without_stamp(console()), "one\n");
}
