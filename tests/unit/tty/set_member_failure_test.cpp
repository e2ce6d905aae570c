// What a set does when a call fails, what it traces, and paths that do not fit.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/machine.h"
#include "tests/unit/tty/console_fixture.h"
#include "tests/unit/tty/set_fixture.h"
#include "tty/store.h"

TEST_F(Set, lock_file_that_cannot_be_opened_is_reported)
{
    fault_row("tty_set_member", "open", "EISDIR", "-1",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n",
              "the old content");
    store("HOME=old\r\n");
    ASSERT_EQ(mkdir(lock_file().c_str(), 0777), 0);
    EXPECT_EQ(set("HOME", "new"), -1);
    EXPECT_EQ(tty_log(), messages({open_failure("open", lock_file(), EISDIR)}));
    EXPECT_EQ(content(), "HOME=old\r\n");
}

TEST_F(Set, lock_that_cannot_be_taken_is_reported_with_the_request)
{
    fault_row("tty_set_member", "fcntl", "ENOLCK", "-1",
              "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: %d member "
              "%s save buf %s\n",
              "no file, nothing unlocked");
    fault::fail("fcntl", 1, ENOLCK, 1, fault::only_what(F_SETLKW));
    const int unlocks = fault::watch("fcntl", fault::only_what(F_SETLK));
    EXPECT_EQ(set("HOME", "/root"), -1);
    EXPECT_EQ(log(), messages({failure("member HOME save buf /root")}));
    EXPECT_EQ(fault::seen(unlocks), 0);
    EXPECT_FALSE(support::exists(info(LINE)));
}

TEST_F(Set, file_that_cannot_be_created_is_reported)
{
    fault_row("tty_set_member", "open", "EROFS", "-1",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n",
              "no file, no temporary file; the lock released");
    fault::fail("open", 2, EROFS, 1, fault::only_path(".tty_info_5"));
    EXPECT_EQ(set("HOME", "/root"), -1);
    EXPECT_EQ(log(), messages({open_failure("fopen", info(LINE), EROFS)}));
    EXPECT_FALSE(support::exists(info(LINE)));
    EXPECT_FALSE(support::exists(temporary()));
    EXPECT_TRUE(unlocked());
}

// The next two name the other file, as programs that read the log expect.
TEST_F(Set, file_that_cannot_be_opened_is_reported_by_the_temporary_ones_name)
{
    fault_row("tty_set_member", "open", "EMFILE", "-1",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n",
              "the old content; the lock released");
    store("HOME=old\r\n");
    fault::fail("open", 2, EMFILE, 1, fault::only_path(".tty_info_5"));
    EXPECT_EQ(set("HOME", "/root"), -1);
    EXPECT_EQ(log(), messages({open_failure("open", temporary(), EMFILE)}));
    EXPECT_EQ(content(), "HOME=old\r\n");
    EXPECT_TRUE(unlocked());
}

TEST_F(Set, temporary_file_that_cannot_be_opened_is_reported_by_the_files_name)
{
    fault_row("tty_set_member", "open", "EISDIR", "-1",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n",
              "the old content; the lock released");
    store("HOME=old\r\n");
    ASSERT_EQ(mkdir(temporary().c_str(), 0777), 0);
    EXPECT_EQ(set("HOME", "/root"), -1);
    EXPECT_EQ(log(), messages({open_failure("fopen", info(LINE), EISDIR)}));
    EXPECT_EQ(content(), "HOME=old\r\n");
    EXPECT_TRUE(unlocked());
}

TEST_F(Set, failed_unlock_after_each_of_these_is_reported_with_the_request)
{
    fault_row("tty_set_member", "fcntl", "ENOLCK", "-1, as an open had failed",
              "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: %d member "
              "%s save buf %s\n",
              "the old content");
    const std::string request = failure("member HOME save buf v");

    fault::fail("open", 2, EROFS, 1, fault::only_path(".tty_info_5"));
    fault::fail("fcntl", 1, ENOLCK, fault::ALWAYS, fault::only_what(F_SETLK));
    EXPECT_EQ(set("HOME", "v"), -1);
    EXPECT_EQ(log(),
              messages({open_failure("fopen", info(LINE), EROFS), request}));

    unlink(path("/mng/tty/.tty_lib_dump.txt").c_str());
    store("HOME=old\r\n");
    fault::fail("open", 2, EMFILE, 1, fault::only_path(".tty_info_5"));
    EXPECT_EQ(set("HOME", "v"), -1);
    EXPECT_EQ(log(),
              messages({open_failure("open", temporary(), EMFILE), request}));

    unlink(path("/mng/tty/.tty_lib_dump.txt").c_str());
    fault::fail("open", 3, EMFILE, 1, fault::only_path(".tty_info_5"));
    EXPECT_EQ(set("HOME", "v"), -1);
    EXPECT_EQ(log(),
              messages({open_failure("fopen", info(LINE), EMFILE), request}));
}

TEST_F(Set, final_unlock_that_fails_is_reported_and_the_set_succeeds)
{
    fault_row("tty_set_member", "fcntl", "ENOLCK", "0",
              "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: %d\n",
              "the new content");
    fault::fail("fcntl", 1, ENOLCK, 1, fault::only_what(F_SETLK));
    EXPECT_EQ(set("HOME", "v"), 0);
    EXPECT_EQ(log(),
              messages({own("failed in func: tty_set_member, line: N\n")}));
    EXPECT_EQ(content(), "HOME=v\r\n");
}

TEST_F(Set, failed_write_of_a_changed_key_is_reported_and_the_copy_goes_on)
{
    fault_row("tty_set_member", "write", "ENOSPC", "0",
              "%s(ttyno %d:pid %d:tid %d): write %s=%s fail ret %d err:%s.\r\n",
              "the file without the key");
    store("HOME=old\r\nTERM=t\r\n");
    fault::fail("write", 1, ENOSPC, 1, fault::only_path(".tmp"));
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(support::slurp(path("/mng/tty/.tty_lib_dump.txt")).substr(16),
              own("write HOME=new fail ret -1 err:No space left on "
                  "device.\r\n"));
    EXPECT_EQ(content(), "TERM=t\r\n");
}

TEST_F(Set, failed_write_of_a_copied_line_is_reported_and_the_copy_goes_on)
{
    fault_row("tty_set_member", "write", "EIO", "0",
              "%s(ttyno %d:pid %d:tid %d): write fail ret %d err:%s, %s.\r\n",
              "the file without the copied line");
    store("TERM=t\r\nHOME=old\r\n");
    fault::fail("write", 1, EIO, 1, fault::only_path(".tmp"));
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(support::slurp(path("/mng/tty/.tty_lib_dump.txt")).substr(16),
              own("write fail ret -1 err:Input/output error, TERM=t\r\n.\r\n"));
    EXPECT_EQ(content(), "HOME=new\r\n");
}

TEST_F(Set, failed_write_of_a_new_key_is_reported)
{
    fault_row("tty_set_member", "write", "ENOSPC", "0",
              "%s(ttyno %d:pid %d:tid %d): write %s=%s fail ret %d err:%s.\r\n",
              "the file as it was");
    store("TERM=t\r\n");
    fault::fail("write", 2, ENOSPC, 1, fault::only_path(".tmp"));
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(tty_log(),
              messages({own("write HOME=new fail ret -1 err:No space left on "
                            "device.\r\n")}));
    EXPECT_EQ(content(), "TERM=t\r\n");
}

TEST_F(Set, short_writes_are_completed_without_a_message)
{
    fault_row("tty_set_member", "write", "short", "0", "", "the new content");
    store("TERM=t\r\nHOME=old\r\n");
    fault::shorten("write", 1, 1, fault::ALWAYS, fault::only_path(".tmp"));
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(content(), "TERM=t\r\nHOME=new\r\n");
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(Set, partly_written_line_stays_after_an_error)
{
    fault_row("tty_set_member", "write", "EIO", "0", "",
              "the bytes before the error, the next line right behind them");
    store("HOME=old\r\nTERM=t\r\n");
    fault::shorten("write", 1, 4, 1, fault::only_path(".tmp"));
    fault::fail("write", 2, EIO, 1, fault::only_path(".tmp"));
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(content(), "HOMETERM=t\r\n");
}

TEST_F(Set, failed_rename_is_reported_and_leaves_the_temporary_file)
{
    fault_row("tty_set_member", "rename", "EXDEV", "-1",
              "%s(ttyno %d:pid %d:tid %d): rename(%s,%s) err[%d]:%s fail\n",
              "the old content and the temporary file; the lock released");
    store("HOME=old\r\n");
    fault::fail("rename", 1, EXDEV);
    EXPECT_EQ(set("HOME", "new"), -1);
    EXPECT_EQ(tty_log(),
              messages({own("rename(" + temporary() + "," + info(LINE) +
                            ") err[18]:Invalid cross-device link fail\n")}));
    EXPECT_EQ(content(), "HOME=old\r\n");
    EXPECT_EQ(support::slurp(temporary()), "HOME=new\r\n");
    EXPECT_TRUE(unlocked());
}

TEST_F(Set, unlock_after_a_failed_rename_is_not_reported)
{
    fault_row("tty_set_member", "fcntl", "ENOLCK",
              "-1, as the rename had failed", "",
              "one message, that of the rename");
    store("HOME=old\r\n");
    fault::fail("rename", 1, EXDEV);
    fault::fail("fcntl", 1, ENOLCK, 1, fault::only_what(F_SETLK));
    EXPECT_EQ(set("HOME", "new"), -1);
    EXPECT_EQ(tty_log().size(), 1u);
}

TEST_F(Set, directory_in_place_of_the_file_is_left_untouched)
{
    ASSERT_EQ(mkdir(info(LINE).c_str(), 0777), 0);
    support::spill(info(LINE) + "/inside", "x");
    EXPECT_EQ(set("HOME", "v"), -1);
    EXPECT_EQ(tty_log(), messages({open_failure("open", temporary(), EISDIR)}));
    EXPECT_EQ(support::slurp(info(LINE) + "/inside"), "x");
    EXPECT_FALSE(support::exists(temporary()));
    EXPECT_TRUE(unlocked());
}

TEST_F(Set, file_that_cannot_be_read_to_its_end_is_left_untouched)
{
    support::not_in_guest("std::ifstream calls read() too");
    fault_row("tty_set_member", "read", "EIO", "-1",
              "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: %d member "
              "%s save buf %s\n",
              "the old content, no temporary file; the lock released");
    store("HOME=old\r\nTERM=t\r\n");
    const int reads = fault::watch("read", fault::only_path(".tty_info_5"));
    fault::fail("read", 11, EIO, fault::ALWAYS, fault::only_path(".tty_info_"));
    EXPECT_EQ(set("HOME", "new"), -1);
    EXPECT_EQ(log(), messages({failure("member HOME save buf new")}));
    EXPECT_LE(fault::seen(reads), 200);
    EXPECT_EQ(content(), "HOME=old\r\nTERM=t\r\n");
    EXPECT_FALSE(support::exists(temporary()));
    EXPECT_TRUE(unlocked());
}

TEST_F(Set, temporary_file_of_a_failed_read_stays_when_it_cannot_be_removed)
{
    fault_row("tty_set_member", "unlink", "EROFS", "-1, as a read had failed",
              "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: %d member "
              "%s save buf %s\n",
              "the old content and the temporary file; the lock released");
    store("HOME=old\r\n");
    fault::fail("read", 1, EIO, fault::ALWAYS, fault::only_path(".tty_info_"));
    fault::fail("unlink", 1, EROFS);
    EXPECT_EQ(set("HOME", "new"), -1);
    // Before the test reads for itself.
    fault::reset();
    EXPECT_EQ(log(), messages({failure("member HOME save buf new")}));
    EXPECT_EQ(content(), "HOME=old\r\n");
    EXPECT_TRUE(support::exists(temporary()));
    EXPECT_TRUE(unlocked());
    // The next set takes the file over.
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(content(), "HOME=new\r\n");
}

TEST_F(Set, single_read_errors_do_not_lose_a_line)
{
    fault_row("tty_set_member", "read", "EIO", "0", "", "the new content");
    store("HOME=old\r\nTERM=t\r\n");
    fault::fail("read", 14, EIO, 3, fault::only_path(".tty_info_5"));
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(content(), "HOME=new\r\nTERM=t\r\n");
}

TEST_F(Set, interrupted_reads_are_repeated)
{
    fault_row("tty_set_member", "read", "EINTR, EAGAIN, EINPROGRESS", "0", "",
              "the new content");
    for (const int error : {EINTR, EAGAIN, EINPROGRESS}) {
        store("HOME=old\r\nTERM=t\r\n");
        fault::fail("read", 3, error, 50, fault::only_path(".tty_info_5"));
        EXPECT_EQ(set("HOME", "new"), 0);
        EXPECT_EQ(content(), "HOME=new\r\nTERM=t\r\n");
    }
}

TEST_F(Set, interrupted_writes_and_locks_are_repeated)
{
    fault_row("tty_set_member", "write", "EINTR, EAGAIN", "0", "",
              "the new content");
    fault_row("tty_set_member", "fcntl", "EINTR", "0", "", "the new content");
    for (const int error : {EINTR, EAGAIN}) {
        store("HOME=old\r\nTERM=t\r\n");
        fault::shorten("write", 1, 3, 1, fault::only_path(".tmp"));
        fault::fail("write", 2, error, 50, fault::only_path(".tmp"));
        fault::fail("fcntl", 1, EINTR, 50, fault::only_what(F_SETLKW));
        EXPECT_EQ(set("HOME", "new"), 0);
        fault::reset();
        EXPECT_EQ(content(), "HOME=new\r\nTERM=t\r\n");
        EXPECT_EQ(tty_log(), messages());
        EXPECT_TRUE(unlocked());
    }
}

TEST_F(Set, traces_the_lock_and_a_new_key)
{
    trace_on();
    EXPECT_EQ(set("HOME", "/root"), 0);
    const messages lines = log();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], own("flock func: tty_set_member, line: N member HOME "
                            "save buf /root\n"));
    EXPECT_EQ(lines[1].substr(0, 14), "tty_read_line(");
    EXPECT_EQ(lines[2], own("new create 12 HOME=/root \r\n"));
}

TEST_F(Set, traces_every_changed_line_by_its_new_text)
{
    trace_on();
    store("HOME=old\r\nTERM=t\r\nHOME=older\r\n");
    EXPECT_EQ(set("HOME", "new"), 0);
    const messages lines = log();
    ASSERT_EQ(lines.size(), 4u);
    const std::string change =
        own("change value 10 HOME=new from HOME=new\r\n");
    EXPECT_EQ(lines[1], change);
    EXPECT_EQ(lines[2], change);
    EXPECT_EQ(lines[3].substr(0, 14), "tty_read_line(");
}

TEST_F(Set, traces_follow_the_messages_of_failed_writes)
{
    fault_row("tty_set_member", "write", "EIO", "0",
              "%s(ttyno %d:pid %d:tid %d): write %s=%s fail ret %d err:%s.\r\n",
              "the trace of the change, with -1 as its length");
    trace_on();
    store("HOME=old\r\n");
    fault::fail("write", 1, EIO, 1, fault::only_path(".tmp"));
    EXPECT_EQ(set("HOME", "new"), 0);
    const messages lines = log();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1], own("write HOME=new fail ret -1 err:Input/output "
                            "error.\r\n"));
    EXPECT_EQ(lines[2], own("change value -1 HOME=new from HOME=new\r\n"));
}

TEST_F(Set, path_that_does_not_fit_fails_and_leaves_the_creation_mask)
{
    std::string prefix = runtime_dir + "/";
    prefix.append(108 - prefix.size(), 'd');
    std::filesystem::create_directories(prefix + "/mng/tty");
    setenv("TMPDIR", prefix.c_str(), 1);
    EXPECT_EQ(set("HOME", "v"), -1);
    EXPECT_TRUE(std::filesystem::is_empty(prefix + "/mng/tty"));
    EXPECT_EQ(umask(022), 022u);
    setenv("TMPDIR", std::string(500, 'd').c_str(), 1);
    EXPECT_EQ(set("HOME", "v"), -1);
}

TEST_F(Set, path_of127_characters_fits)
{
    std::string prefix = runtime_dir + "/";
    prefix.append(107 - prefix.size(), 'd');
    std::filesystem::create_directories(prefix + "/mng/tty");
    setenv("TMPDIR", prefix.c_str(), 1);
    EXPECT_EQ(set("HOME", "deep"), 0);
    EXPECT_EQ(support::slurp(prefix + "/mng/tty/.tty_info_5"), "HOME=deep\r\n");
    EXPECT_TRUE(support::exists(prefix + "/mng/tty/.tty_info_5.lock"));
}

class SetAtRoot : public console_test
{
};

TEST_F(SetAtRoot, lies_under_the_root_without_tmpdir)
{
    EXPECT_EQ(tty_set_member(0, "HOME", "zero"), 0);
    EXPECT_EQ(support::slurp("/mng/tty/.tty_info_0"), "HOME=zero\r\n");
    EXPECT_EQ(tty_set_member(12, "HOME", ""), 0);
    EXPECT_EQ(tty_log(), messages({ids("tty_set_member", 12) +
                                   "add null member HOME to empty file "
                                   "//mng/tty/.tty_info_12\n"}));
}

// A file system of one page, full: the lines are lost, but not the messages
// about them, which go elsewhere.
TEST_F(SetAtRoot, lines_that_a_full_disk_loses_are_reported)
{
    make_directories("/mng/tty");
    ASSERT_EQ(mount("tmpfs", "/mng/tty", "tmpfs", 0, "size=4096"), 0);
    ASSERT_EQ(symlink("/tmp/dump", "/mng/tty/.tty_lib_dump.txt"), 0);
    support::spill("/mng/tty/filler", std::string(4096, 'x'));
    EXPECT_EQ(tty_set_member(12, "HOME", "new"), 0);
    EXPECT_EQ(tty_log(),
              messages({ids("tty_set_member", 12) +
                        "write HOME=new fail ret -1 err:No space left on "
                        "device.\r\n"}));
    EXPECT_EQ(support::slurp("/mng/tty/.tty_info_12"), "");
}

TEST_F(SetAtRoot, path_that_does_not_fit_is_reported)
{
    const std::string prefix = "/tmp/" + std::string(99, 'd');
    make_console();
    make_directories(prefix + "/mng/tty");
    support::spill(prefix + "/mng/tty/.tty_lib_debug", "");
    setenv("TMPDIR", prefix.c_str(), 1);
    EXPECT_EQ(tty_set_member(80000, "HOME", "v"), -1);
    EXPECT_EQ(support::without_stamp(console()),
              ids("tty_set_member", 80000) +
                  "make file /mng/tty/.tty_info fail errno:36, File name too "
                  "long\n");
}
