#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/support/descriptors.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/console_fixture.h"
#include "tests/unit/tty/lock_holder.h"
#include "tests/unit/tty/tty_fixture.h"
#include "tty/store.h"

constexpr unsigned int LINE = 5;

class Set : public tty_test
{
  protected:
    void SetUp() override
    {
        tty_test::SetUp();
        shared_info = info(LINE);
    }

    std::string lock_file() const
    {
        return info(LINE) + ".lock";
    }

    std::string temporary() const
    {
        return info(LINE) + ".tmp";
    }

    void store(const std::string &content) const
    {
        support::spill(info(LINE), content);
    }

    std::string content() const
    {
        return support::slurp(info(LINE));
    }

    static int set(const char *name, const std::string &value)
    {
        return tty_set_member(LINE, name, value.c_str());
    }

    std::string own(const std::string &rest) const
    {
        return ids("tty_set_member", LINE) + rest;
    }

    std::string open_failure(const char *verb, const std::string &file,
                             int error) const
    {
        return own(verb + (" file " + file) + " fail errno:" +
                   std::to_string(error) + ", " + strerror(error) + "\n");
    }

    // The message of a failure that names the request.
    std::string failure(const std::string &request) const
    {
        return own("failed in func: tty_set_member, line: N " + request + "\n");
    }

    static mode_t mode_of(const std::string &name)
    {
        struct stat status = {};
        EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
        return status.st_mode & 07777;
    }

    static ino_t inode_of(const std::string &name)
    {
        struct stat status = {};
        EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
        return status.st_ino;
    }

    bool unlocked() const
    {
        return lock_error_elsewhere(lock_file()) == 0;
    }

    static std::string shared_info;
};

std::string Set::shared_info;

// What a hook saw when it ran.
static int lock_error;
static std::string info_seen;
static std::string temporary_seen;
static int temporary_flags;
static int temporary_descriptor_flags;

class SetHook : public Set
{
  protected:
    void SetUp() override
    {
        Set::SetUp();
        lock_error = -1;
        temporary_flags = temporary_descriptor_flags = -1;
    }

    static void look()
    {
        lock_error = lock_error_elsewhere(shared_info + ".lock");
        info_seen = support::slurp(shared_info);
        temporary_seen = support::slurp(shared_info + ".tmp");
    }

    static void look_at_descriptor()
    {
        const std::string wanted = " -> " + shared_info + ".tmp";
        for (const std::string &each : support::open_descriptors()) {
            if (each.find(wanted) != std::string::npos) {
                temporary_flags = fcntl(atoi(each.c_str()), F_GETFL);
                temporary_descriptor_flags = fcntl(atoi(each.c_str()), F_GETFD);
            }
        }
    }
};

TEST_F(Set, first_value_makes_the_file)
{
    EXPECT_EQ(set("HOME", "/root"), 0);
    EXPECT_EQ(content(), "HOME=/root\r\n");
    EXPECT_TRUE(support::exists(lock_file()));
    EXPECT_FALSE(support::exists(temporary()));
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(Set, new_key_is_appended)
{
    EXPECT_EQ(set("HOME", "/root"), 0);
    EXPECT_EQ(set("TERM", "vt100"), 0);
    EXPECT_EQ(content(), "HOME=/root\r\nTERM=vt100\r\n");
}

TEST_F(Set, changed_key_keeps_its_place)
{
    store("HOME=1\r\nTERM=2\r\nPWD=3\r\n");
    EXPECT_EQ(set("TERM", "changed"), 0);
    EXPECT_EQ(content(), "HOME=1\r\nTERM=changed\r\nPWD=3\r\n");
    EXPECT_EQ(set("HOME", ""), 0);
    EXPECT_EQ(content(), "HOME=\r\nTERM=changed\r\nPWD=3\r\n");
}

TEST_F(Set, every_line_of_the_key_is_replaced)
{
    store("HOME=1\r\nTERM=2\r\nHOME=3\nHOME=4");
    EXPECT_EQ(set("HOME", "x"), 0);
    EXPECT_EQ(content(), "HOME=x\r\nTERM=2\r\nHOME=x\r\nHOME=x\r\n");
}

TEST_F(Set, key_does_not_match_a_longer_one)
{
    store("VKD_SWITCH=long\r\nVKD=short\r\n");
    EXPECT_EQ(set("VKD", "x"), 0);
    EXPECT_EQ(content(), "VKD_SWITCH=long\r\nVKD=x\r\n");
    EXPECT_EQ(set("VKD_SWITCH", "y"), 0);
    EXPECT_EQ(content(), "VKD_SWITCH=y\r\nVKD=x\r\n");
    EXPECT_EQ(set("AUTHOR_CMD1", "1"), 0);
    EXPECT_EQ(set("AUTHOR_CMD", "0"), 0);
    EXPECT_EQ(content(), "VKD_SWITCH=y\r\nVKD=x\r\nAUTHOR_CMD1=1\r\n"
                         "AUTHOR_CMD=0\r\n");
}

TEST_F(Set, lines_of_any_other_shape_are_kept)
{
    const std::string odd =
        "\r\n\n# comment\nHOME\n HOME=1\nhome=2\n=\n\tx \r\n";
    store(odd);
    EXPECT_EQ(set("HOME", "/root"), 0);
    EXPECT_EQ(content(), odd + "HOME=/root\r\n");
}

TEST_F(Set, line_with_a_bare_line_feed_is_copied_unchanged)
{
    store("TERM=x\nHOME=y\n");
    EXPECT_EQ(set("HOME", "z"), 0);
    EXPECT_EQ(content(), "TERM=x\nHOME=z\r\n");
}

TEST_F(Set, last_line_without_a_line_end_runs_into_the_appended_key)
{
    store("TERM=x");
    EXPECT_EQ(set("HOME", "y"), 0);
    EXPECT_EQ(content(), "TERM=xHOME=y\r\n");
}

TEST_F(Set, zero_byte_is_dropped)
{
    store(std::string("TERM=a\0b\r\nPWD=c\r\n", 17));
    EXPECT_EQ(set("HOME", "x"), 0);
    EXPECT_EQ(content(), "TERM=ab\r\nPWD=c\r\nHOME=x\r\n");
}

TEST_F(Set, long_line_survives_whole)
{
    const std::string line = "TERM=" + std::string(5000, 't') + "\r\n";
    store(line + "PWD=p\r\n");
    EXPECT_EQ(set("HOME", "x"), 0);
    EXPECT_TRUE(content() == line + "PWD=p\r\nHOME=x\r\n");
}

TEST_F(Set, piece_of_a_long_line_that_begins_with_the_key_is_replaced)
{
    const std::string piece = "TERM=" + std::string(1019, 't');
    store(piece + "HOME=inside\r\n");
    EXPECT_EQ(set("HOME", "x"), 0);
    EXPECT_TRUE(content() == piece + "HOME=x\r\n");
}

TEST_F(Set, value_is_stored_as_it_is)
{
    EXPECT_EQ(set("HOME", "null"), 0);
    EXPECT_EQ(content(), "HOME=null\r\n");
    EXPECT_EQ(set("HOME", " a=b %s \t\x7f\xff"), 0);
    EXPECT_EQ(content(), "HOME= a=b %s \t\x7f\xff\r\n");
}

TEST_F(Set, line_feed_in_a_value_splits_its_line)
{
    EXPECT_EQ(set("HOME", "a\nTERM=b"), 0);
    EXPECT_EQ(content(), "HOME=a\nTERM=b\r\n");
    EXPECT_EQ(set("TERM", "c"), 0);
    EXPECT_EQ(content(), "HOME=a\nTERM=c\r\n");
}

TEST_F(Set, pair_of1020_characters_is_stored_whole)
{
    const std::string value(1016, 'v');
    EXPECT_EQ(set("HOME", value), 0);
    EXPECT_TRUE(content() == "HOME=" + value + "\r\n");
}

TEST_F(Set, longer_line_is_cut_at1023_characters)
{
    EXPECT_EQ(set("HOME", std::string(1017, 'v')), 0);
    EXPECT_TRUE(content() == "HOME=" + std::string(1017, 'v') + "\r");
    EXPECT_EQ(set("HOME", std::string(1018, 'w')), 0);
    EXPECT_TRUE(content() == "HOME=" + std::string(1018, 'w'));
    EXPECT_EQ(set("HOME", std::string(5000, 'x')), 0);
    EXPECT_TRUE(content() == "HOME=" + std::string(1018, 'x'));
}

TEST_F(Set, cut_line_runs_into_the_next_one)
{
    store("HOME=x\r\nTERM=t\r\n");
    EXPECT_EQ(set("HOME", std::string(2000, 'v')), 0);
    EXPECT_TRUE(content() == "HOME=" + std::string(1018, 'v') + "TERM=t\r\n");
}

TEST_F(Set, empty_value_on_a_line_without_a_file_creates_nothing)
{
    EXPECT_EQ(set("HOME", ""), 0);
    EXPECT_EQ(tty_log(), messages({own("add null member HOME to empty file " +
                                       info(LINE) + "\n")}));
    EXPECT_FALSE(support::exists(info(LINE)));
    EXPECT_FALSE(support::exists(lock_file()));
    EXPECT_FALSE(support::exists(temporary()));
}

TEST_F(Set, empty_value_on_a_line_with_a_file_is_stored)
{
    store("TERM=x\r\n");
    EXPECT_EQ(set("HOME", ""), 0);
    EXPECT_EQ(set("TERM", ""), 0);
    EXPECT_EQ(content(), "TERM=\r\nHOME=\r\n");
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(Set, empty_value_is_not_dropped_when_the_file_cannot_be_looked_for)
{
    fault_row("tty_set_member", "access", "EACCES", "-1",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n",
              "the lock file; no file is created");
    fault::fail("access", 1, EACCES, fault::ALWAYS,
                fault::only_path(".tty_info_"));
    EXPECT_EQ(set("HOME", ""), -1);
    // Not known to be missing, so it is not created either.
    EXPECT_EQ(tty_log(), messages({open_failure("open", temporary(), ENOENT)}));
    EXPECT_TRUE(support::exists(lock_file()));
}

TEST_F(Set, creation_mask_is_zero_from_then_on)
{
    umask(077);
    EXPECT_EQ(set("HOME", "x"), 0);
    EXPECT_EQ(mode_of(info(LINE)), 0777u);
    EXPECT_EQ(mode_of(lock_file()), 0777u);
    EXPECT_EQ(umask(022), 0u);
}

TEST_F(Set, creation_mask_is_zero_also_after_nothing_was_stored)
{
    EXPECT_EQ(set("HOME", ""), 0);
    EXPECT_EQ(umask(022), 0u);
    ASSERT_EQ(mkdir(lock_file().c_str(), 0777), 0);
    EXPECT_EQ(set("HOME", "x"), -1);
    EXPECT_EQ(umask(022), 0u);
}

TEST_F(Set, replaced_file_is_open_to_all_whatever_the_old_one_was)
{
    store("HOME=1\r\n");
    ASSERT_EQ(chmod(info(LINE).c_str(), 0600), 0);
    EXPECT_EQ(set("HOME", "2"), 0);
    EXPECT_EQ(mode_of(info(LINE)), 0777u);
}

TEST_F(Set, lock_file_is_neither_written_nor_replaced)
{
    EXPECT_EQ(set("HOME", "1"), 0);
    const ino_t before = inode_of(lock_file());
    EXPECT_EQ(set("HOME", "2"), 0);
    EXPECT_EQ(inode_of(lock_file()), before);
    EXPECT_EQ(support::slurp(lock_file()), "");
}

TEST_F(Set, reader_of_the_old_file_keeps_the_old_content)
{
    char bytes[64] = {};
    store("HOME=old\r\n");
    const int fd = open(info(LINE).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(read(fd, bytes, sizeof bytes), 10);
    EXPECT_STREQ(bytes, "HOME=old\r\n");
    close(fd);
}

TEST_F(Set, old_content_of_the_temporary_file_is_gone)
{
    support::spill(temporary(), std::string(5000, 'x'));
    EXPECT_EQ(set("HOME", "1"), 0);
    EXPECT_EQ(content(), "HOME=1\r\n");
}

TEST_F(SetHook, new_content_is_complete_before_it_replaces_the_old)
{
    store("HOME=old\r\nTERM=t\r\n");
    fault::run("rename", 1, look);
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(info_seen, "HOME=old\r\nTERM=t\r\n");
    EXPECT_EQ(temporary_seen, "HOME=new\r\nTERM=t\r\n");
}

TEST_F(SetHook, lock_is_held_until_the_new_content_is_in_place)
{
    store("HOME=old\r\n");
    fault::run("rename", 1, look);
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_TRUE(held_elsewhere(lock_error)) << lock_error;
    EXPECT_TRUE(unlocked());
}

TEST_F(SetHook, missing_file_is_created_empty_under_the_lock)
{
    fault::run("rename", 1, look);
    const int opens = fault::watch("open", fault::only_path(".tty_info_5"));
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(info_seen, "");
    EXPECT_EQ(fault::seen(opens), 4);
}

TEST_F(SetHook, temporary_file_is_written_synchronously)
{
    fault::run("write", 1, look_at_descriptor, 1, fault::only_path(".tmp"));
    EXPECT_EQ(set("HOME", "new"), 0);
    EXPECT_EQ(temporary_flags & O_SYNC, O_SYNC);
    EXPECT_EQ(temporary_flags & O_ACCMODE, O_RDWR);
    EXPECT_EQ(temporary_descriptor_flags, FD_CLOEXEC);
}

TEST_F(Set, line0_is_written_in_the_own_runtime_directory)
{
    std::filesystem::create_directories(path("/3/mng/tty"));
    std::filesystem::create_directories(path("/0/mng/tty"));
    setenv("TMPDIR", path("/3").c_str(), 1);
    EXPECT_EQ(tty_set_member(0, "HOME", "x"), 0);
    EXPECT_EQ(support::slurp(path("/3/mng/tty/.tty_info_0")), "HOME=x\r\n");
    EXPECT_TRUE(std::filesystem::is_empty(path("/0/mng/tty")));
    char buf[64];
    EXPECT_EQ(tty_get_member(0, "HOME", buf, sizeof buf), nullptr);
}

TEST_F(Set, lines_have_their_own_files)
{
    EXPECT_EQ(tty_set_member(1585, "HOME", "last"), 0);
    EXPECT_EQ(tty_set_member(80001, "HOME", "reserved"), 0);
    EXPECT_EQ(support::slurp(info(1585)), "HOME=last\r\n");
    EXPECT_EQ(support::slurp(info(80001)), "HOME=reserved\r\n");
}

TEST_F(Set, waits_for_another_process_that_holds_the_lock)
{
    lock_holder other(lock_file());
    const int waits = fault::watch("fcntl", fault::only_what(F_SETLKW));
    std::atomic<int> result{-2};
    std::thread setter([&] {
        result = set("HOME", "x");
    });
    EXPECT_TRUE(support::wait_until([&] {
        return fault::seen(waits) == 1;
    }));
    usleep(50000);
    EXPECT_EQ(result, -2);
    EXPECT_FALSE(support::exists(info(LINE)));
    other.let_go();
    setter.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(content(), "HOME=x\r\n");
}

TEST_F(Set, other_lines_are_not_locked)
{
    lock_holder other(info(6) + ".lock");
    EXPECT_EQ(set("HOME", "x"), 0);
    other.let_go();
}

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
