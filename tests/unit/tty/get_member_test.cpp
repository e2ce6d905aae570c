#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/console_fixture.h"
#include "tests/unit/tty/get_fixture.h"
#include "tests/unit/tty/lock_holder.h"
#include "tty/store.h"

TEST_F(Get, returns_the_value_without_its_line_end)
{
    store("HOME=/root\r\nTERM=vt100\r\n");
    EXPECT_EQ(get("HOME"), "/root");
    EXPECT_EQ(get("TERM"), "vt100");
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(Get, clears_the_whole_buffer_first)
{
    store("HOME=/root");
    EXPECT_EQ(get("HOME", 64), "/root");
    EXPECT_EQ(std::string(buf, 64), "/root" + std::string(59, '\0'));
    EXPECT_EQ(buf[64], 0x5a);
}

TEST_F(Get, absent_key_gives_null_and_a_cleared_buffer)
{
    store("HOME=/root\r\n");
    EXPECT_EQ(get("TERM", 64), "(null)");
    EXPECT_TRUE(cleared(64));
    EXPECT_EQ(buf[64], 0x5a);
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(Get, missing_file_is_reported_and_leaves_a_lock_file)
{
    EXPECT_EQ(get("HOME", 64), "(null)");
    EXPECT_TRUE(cleared(64));
    EXPECT_EQ(tty_log(), messages({open_failure(info(LINE), ENOENT)}));
    EXPECT_TRUE(support::exists(lock_file()));
    EXPECT_FALSE(support::exists(info(LINE)));
    EXPECT_FALSE(support::exists(info(LINE) + ".tmp"));
}

TEST_F(Get, lock_file_is_created_open_to_all_under_the_creation_mask)
{
    struct stat status = {};
    get("HOME");
    ASSERT_EQ(stat(lock_file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
    EXPECT_EQ(status.st_size, 0);
}

TEST_F(Get, first_line_of_the_key_wins)
{
    store("HOME=one\r\nHOME=two\r\n");
    EXPECT_EQ(get("HOME"), "one");
}

TEST_F(Get, first_line_of_the_key_wins_also_when_it_is_empty)
{
    store("HOME=\r\nHOME=two\r\n");
    EXPECT_EQ(get("HOME"), "(null)");
}

TEST_F(Get, stops_reading_at_the_first_match)
{
    store("HOME=1\r\nTERM=2\r\n");
    const int reads = fault::watch("read");
    EXPECT_EQ(get("HOME"), "1");
    EXPECT_EQ(fault::seen(reads), 8);
}

TEST_F(Get, key_does_not_match_a_longer_one)
{
    store("VKD_SWITCH=long\r\nVKD=short\r\nAUTHOR_CMD1=one\r\n"
          "AUTHOR_CMD=none\r\n");
    EXPECT_EQ(get("VKD"), "short");
    EXPECT_EQ(get("VKD_SWITCH"), "long");
    EXPECT_EQ(get("AUTHOR_CMD"), "none");
    EXPECT_EQ(get("AUTHOR_CMD1"), "one");
}

TEST_F(Get, key_must_stand_at_the_start_of_its_line)
{
    store(" HOME=1\r\nXHOME=2\r\nHOME =3\r\nhome=4\r\nHOME\r\n=HOME=\r\n");
    EXPECT_EQ(get("HOME"), "(null)");
}

TEST_F(Get, value_may_hold_equals_signs_and_blanks)
{
    store("HOME= a=b \r\n");
    EXPECT_EQ(get("HOME"), " a=b ");
}

TEST_F(Get, long_value_is_cut_to_the_buffer)
{
    store("HOME=abcdefgh\r\n");
    EXPECT_EQ(get("HOME", 5), "abcd");
    EXPECT_EQ(buf[4], '\0');
    EXPECT_EQ(buf[5], 0x5a);
    EXPECT_EQ(get("HOME", 9), "abcdefgh");
    EXPECT_EQ(get("HOME", 2), "a");
}

TEST_F(Get, buffer_of_one_byte_holds_nothing)
{
    store("HOME=abc\r\n");
    EXPECT_EQ(get("HOME", 1), "(null)");
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(buf[1], 0x5a);
}

TEST_F(Get, cut_value_keeps_what_it_ends_in)
{
    store("HOME=abc\r\n");
    EXPECT_EQ(get("HOME", 5), "abc\r");
    EXPECT_EQ(get("HOME", 6), "abc");
    EXPECT_EQ(get("HOME", 7), "abc");
}

TEST_F(Get, cut_two_behind_a_carriage_return_ends_there)
{
    store("HOME=a\rbc\r\n");
    EXPECT_EQ(get("HOME", 4), "a");
    EXPECT_EQ(get("HOME", 5), "a\rbc");
    EXPECT_EQ(get("HOME", 64), "a\rbc");
    store("HOME=\rx");
    EXPECT_EQ(get("HOME"), "");
}

TEST_F(Get, bare_line_feed_stays_with_the_value)
{
    store("HOME=/root\nTERM=\n");
    EXPECT_EQ(get("HOME"), "/root\n");
    EXPECT_EQ(get("TERM"), "\n");
}

TEST_F(Get, last_line_needs_no_line_end)
{
    store("HOME=/root");
    EXPECT_EQ(get("HOME"), "/root");
}

TEST_F(Get, one_character_without_line_end_is_returned_unchanged)
{
    store("HOME=x");
    EXPECT_EQ(get("HOME"), "x");
    store("HOME=\r");
    EXPECT_EQ(get("HOME"), "\r");
    store("HOME=x\r\n");
    EXPECT_EQ(get("HOME", 2), "x");
}

TEST_F(Get, empty_value_is_absent)
{
    for (const char *content : {"HOME=\r\n", "HOME="}) {
        store(content);
        EXPECT_EQ(get("HOME"), "(null)") << content;
    }
}

TEST_F(Get, null_as_text_is_absent_only_without_its_line_end)
{
    store("HOME=null\r\n");
    EXPECT_EQ(get("HOME", 5), "(null)");
    EXPECT_EQ(get("HOME", 6), "null\r");
    EXPECT_EQ(get("HOME", 7), "null");
    EXPECT_EQ(get("HOME", 64), "null");
    store("HOME=null");
    EXPECT_EQ(get("HOME", 64), "(null)");
    store("HOME=nullable\r\n");
    EXPECT_EQ(get("HOME", 5), "(null)");
    EXPECT_EQ(get("HOME", 64), "nullable");
    store("HOME=NULL");
    EXPECT_EQ(get("HOME", 64), "NULL");
}

TEST_F(Get, text_that_counts_as_absent_stays_in_the_buffer)
{
    store("HOME=null\r\n");
    EXPECT_EQ(get("HOME", 5), "(null)");
    EXPECT_STREQ(buf, "null");
}

TEST_F(Get, zero_byte_ends_the_value_and_the_line)
{
    store(std::string("HOME=ab\0cd\r\n", 12));
    EXPECT_EQ(get("HOME"), "ab");
    store(std::string("TERM=x\0HOME=y\r\n", 15));
    EXPECT_EQ(get("HOME"), "y");
}

TEST_F(Get, long_line_is_read_in_pieces_of1024_bytes)
{
    store("TERM=" + std::string(1019, 't') + "HOME=inside\r\nPWD=p\r\n");
    EXPECT_EQ(get("HOME"), "inside");
    EXPECT_EQ(get("PWD"), "p");
    store("TERM=" + std::string(1018, 't') + "HOME=inside\r\n");
    EXPECT_EQ(get("HOME"), "(null)");
}

TEST_F(Get, value_reaches_to_the_end_of_its_piece)
{
    store("HOME=" + std::string(3000, 'h') + "\r\n");
    EXPECT_EQ(get("HOME", 4096), std::string(1019, 'h'));
}

TEST_F(Get, stale_text_in_the_line_buffer_is_not_seen)
{
    store("HOME=longvalue\r\n\nT\r\n");
    EXPECT_EQ(get("HOME"), "longvalue");
    EXPECT_EQ(get("ONGVALUE"), "(null)");
    store("");
    EXPECT_EQ(get("HOME"), "(null)");
}

TEST_F(Get, lines_have_their_own_files)
{
    store("HOME=five\r\n");
    support::spill(info(1585), "HOME=last\r\n");
    support::spill(info(80000), "HOME=reserved\r\n");
    EXPECT_STREQ(tty_get_member(5, "HOME", buf, 64), "five");
    EXPECT_STREQ(tty_get_member(1585, "HOME", buf, 64), "last");
    EXPECT_STREQ(tty_get_member(80000, "HOME", buf, 64), "reserved");
    EXPECT_EQ(tty_get_member(6, "HOME", buf, 64), nullptr);
}

TEST_F(Get, lock_file_that_cannot_be_opened_is_reported)
{
    fault_row("tty_get_member", "open", "EISDIR",
              "a null pointer, the buffer cleared",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n", "");
    store("HOME=/root\r\n");
    ASSERT_EQ(mkdir(lock_file().c_str(), 0777), 0);
    EXPECT_EQ(get("HOME", 64), "(null)");
    EXPECT_TRUE(cleared(64));
    EXPECT_EQ(tty_log(), messages({open_failure(lock_file(), EISDIR)}));
}

TEST_F(Get, lock_that_cannot_be_taken_is_reported_without_an_unlock)
{
    fault_row("tty_get_member", "fcntl", "ENOLCK", "a null pointer",
              "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: %d\n",
              "the file not opened, nothing unlocked");
    store("HOME=/root\r\n");
    fault::fail("fcntl", 1, ENOLCK, 1, fault::only_what(F_SETLKW));
    const int unlocks = fault::watch("fcntl", fault::only_what(F_SETLK));
    const int opens = fault::watch("open", fault::only_path(".tty_info_"));
    EXPECT_EQ(get("HOME"), "(null)");
    EXPECT_EQ(log(),
              messages({own("failed in func: tty_get_member, line: N\n")}));
    EXPECT_EQ(fault::seen(unlocks), 0);
    EXPECT_EQ(fault::seen(opens), 1);
}

TEST_F(Get, file_that_cannot_be_opened_is_reported_and_unlocked)
{
    fault_row("tty_get_member", "open", "EMFILE", "a null pointer",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n",
              "the lock released");
    store("HOME=/root\r\n");
    const int unlocks = fault::watch("fcntl", fault::only_what(F_SETLK));
    fault::fail("open", 2, EMFILE, 1, fault::only_path(".tty_info_"));
    EXPECT_EQ(get("HOME"), "(null)");
    EXPECT_EQ(tty_log(), messages({open_failure(info(LINE), EMFILE)}));
    EXPECT_EQ(fault::seen(unlocks), 1);
}

TEST_F(Get, unlock_that_fails_changes_nothing)
{
    fault_row("tty_get_member", "fcntl", "ENOLCK", "the value", "", "");
    store("HOME=/root\r\n");
    fault::fail("fcntl", 1, ENOLCK, 1, fault::only_what(F_SETLK));
    EXPECT_EQ(get("HOME"), "/root");
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(Get, traces_the_lock_and_the_value)
{
    trace_on();
    store("HOME=/root\r\n");
    EXPECT_EQ(get("HOME"), "/root");
    EXPECT_EQ(log(),
              messages({own("flock func: tty_get_member, line: N member "
                            "HOME\n"),
                        own("tty_get_member get HOME result /root.\n")}));
}

TEST_F(Get, traces_an_empty_value)
{
    trace_on();
    store("HOME=\r\n");
    EXPECT_EQ(get("HOME"), "(null)");
    EXPECT_EQ(log(),
              messages({own("flock func: tty_get_member, line: N member "
                            "HOME\n"),
                        own("failed in func: tty_get_member, line: N\n")}));
}

TEST_F(Get, traces_the_end_of_the_file_before_an_absent_key)
{
    trace_on();
    store("TERM=x\r\n");
    EXPECT_EQ(get("HOME"), "(null)");
    const messages lines = log();
    ASSERT_EQ(lines.size(), 3u);
    const std::string end = "tty_read_line(pid " + std::to_string(getpid()) +
                            ":tid " + std::to_string(gettid()) +
                            "):read line fail, fd ";
    EXPECT_EQ(lines[1].substr(0, end.size()), end);
    EXPECT_EQ(lines[2], own("failed in func: tty_get_member, line: N\n"));
}

TEST_F(Get, holds_the_lock_while_it_reads)
{
    store("HOME=/root\r\n");
    fault::run("read", 1, note_lock, 1, fault::only_path(".tty_info_"));
    EXPECT_EQ(get("HOME"), "/root");
    EXPECT_TRUE(held_elsewhere(lock_error)) << lock_error;
    EXPECT_EQ(lock_error_elsewhere(lock_file()), 0);
}

TEST_F(Get, waits_for_another_process_that_holds_the_lock)
{
    store("HOME=old\r\n");
    lock_holder other(lock_file());
    const int waits = fault::watch("fcntl", fault::only_what(F_SETLKW));
    std::atomic<bool> done{false};
    std::string value;
    std::thread getter([&] {
        value = get("HOME");
        done = true;
    });
    EXPECT_TRUE(support::wait_until([&] {
        return fault::seen(waits) == 1;
    }));
    usleep(50000);
    EXPECT_FALSE(done);
    store("HOME=new\r\n");
    other.let_go();
    getter.join();
    EXPECT_EQ(value, "new");
}

TEST_F(Get, other_lines_are_not_locked)
{
    store("HOME=/root\r\n");
    lock_holder other(info(6) + ".lock");
    EXPECT_EQ(get("HOME"), "/root");
    other.let_go();
}

TEST_F(Get, file_that_cannot_be_read_holds_nothing)
{
    fault_row("tty_get_member", "read", "EIO",
              "a null pointer, the buffer cleared", "", "the lock released");
    store("HOME=/root\r\n");
    fault::fail("read", 1, EIO, fault::ALWAYS, fault::only_path(".tty_info_5"));
    const int reads = fault::watch("read");
    EXPECT_EQ(get("HOME", 64), "(null)");
    EXPECT_TRUE(cleared(64));
    EXPECT_LE(fault::seen(reads), 100);
    EXPECT_EQ(tty_log(), messages());
    EXPECT_EQ(lock_error_elsewhere(lock_file()), 0);
}

TEST_F(Get, reading_goes_on_behind_an_error)
{
    fault_row("tty_get_member", "read", "EIO",
              "the value of a later whole line", "", "");
    store("HOME=one\r\nHOME=two\r\n");
    fault::fail("read", 3, EIO);
    // "HO" and "ME=one" are lines of their own then.
    EXPECT_EQ(get("HOME"), "two");
    fault::reset();
    fault::fail("read", 1, EIO, 10);
    EXPECT_EQ(get("HOME"), "one");
}

TEST_F(Get, interrupted_reads_are_repeated)
{
    fault_row("tty_get_member", "read", "EINTR, EAGAIN, EINPROGRESS",
              "the value", "", "");
    store("HOME=one\r\n");
    for (const int error : {EINTR, EAGAIN, EINPROGRESS}) {
        fault::reset();
        fault::fail("read", 3, error, 50);
        EXPECT_EQ(get("HOME"), "one") << error;
    }
}

TEST_F(Get, interrupted_lock_is_repeated)
{
    fault_row("tty_get_member", "fcntl", "EINTR", "the value", "", "");
    store("HOME=one\r\n");
    fault::fail("fcntl", 1, EINTR, 50, fault::only_what(F_SETLKW));
    EXPECT_EQ(get("HOME"), "one");
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(Get, does_not_change_the_creation_mask)
{
    store("HOME=one\r\n");
    umask(027);
    get("HOME");
    EXPECT_EQ(umask(022), 027u);
}

TEST_F(Get, makes_the_directory_on_the_first_use)
{
    std::filesystem::remove_all(path("/mng"));
    EXPECT_EQ(get("HOME"), "(null)");
    EXPECT_TRUE(support::exists(lock_file()));
}

TEST_F(Get, path_that_does_not_fit_gives_null_and_creates_nothing)
{
    std::string prefix = runtime_dir + "/";
    prefix.append(108 - prefix.size(), 'd');
    std::filesystem::create_directories(prefix + "/mng/tty");
    setenv("TMPDIR", prefix.c_str(), 1);
    // 108 + "/mng/tty/.tty_info" + "_5" is 128.
    EXPECT_EQ(get("HOME", 64), "(null)");
    EXPECT_TRUE(cleared(64));
    EXPECT_TRUE(std::filesystem::is_empty(prefix + "/mng/tty"));
}

TEST_F(Get, prefix_that_does_not_fit_gives_null)
{
    std::string prefix = runtime_dir + "/";
    prefix.append(110 - prefix.size(), 'd');
    std::filesystem::create_directories(prefix + "/mng/tty");
    setenv("TMPDIR", prefix.c_str(), 1);
    // 110 + "/mng/tty/.tty_info" is 128.
    EXPECT_EQ(get("HOME", 64), "(null)");
    EXPECT_TRUE(cleared(64));
    EXPECT_TRUE(std::filesystem::is_empty(prefix + "/mng/tty"));
}

TEST_F(Get, path_of127_characters_fits)
{
    std::string prefix = runtime_dir + "/";
    prefix.append(107 - prefix.size(), 'd');
    std::filesystem::create_directories(prefix + "/mng/tty");
    support::spill(prefix + "/mng/tty/.tty_info_5", "HOME=deep\r\n");
    setenv("TMPDIR", prefix.c_str(), 1);
    EXPECT_EQ(get("HOME"), "deep");
    EXPECT_TRUE(support::exists(prefix + "/mng/tty/.tty_info_5.lock"));
}

class GetAtRoot : public console_test
{
};

TEST_F(GetAtRoot, paths_begin_with_a_double_slash_without_tmpdir)
{
    char buf[64];
    EXPECT_EQ(tty_get_member(12, "HOME", buf, sizeof buf), nullptr);
    EXPECT_EQ(tty_log(),
              messages({ids("tty_get_member", 12) +
                        "open file //mng/tty/.tty_info_12 fail errno:2, No "
                        "such file or directory\n"}));
    support::spill("/mng/tty/.tty_info_12", "HOME=/root\r\n");
    EXPECT_STREQ(tty_get_member(12, "HOME", buf, sizeof buf), "/root");
}

// A path that is too long for the file is so for the log too, but not always
// for the console's switch file.
TEST_F(GetAtRoot, path_that_does_not_fit_is_reported)
{
    char buf[64];
    const std::string prefix = "/tmp/" + std::string(99, 'd');
    make_console();
    make_directories(prefix + "/mng/tty");
    support::spill(prefix + "/mng/tty/.tty_lib_debug", "");
    setenv("TMPDIR", prefix.c_str(), 1);
    EXPECT_EQ(tty_get_member(80000, "HOME", buf, sizeof buf), nullptr);
    EXPECT_EQ(support::without_stamp(console()),
              ids("tty_get_member", 80000) +
                  "make file /mng/tty/.tty_info fail errno:36, File name too "
                  "long\n");
}

TEST_F(GetAtRoot, line0_of_a_tmpdir_directly_under_the_root)
{
    char buf[64];
    make_directories("/0/mng/tty");
    make_directories("/own/mng/tty");
    support::spill("/0/mng/tty/.tty_info_0", "HOME=zero\r\n");
    setenv("TMPDIR", "/own", 1);
    EXPECT_STREQ(tty_get_member(0, "HOME", buf, sizeof buf), "zero");
}
