#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/support/descriptors.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/lock_holder.h"
#include "tests/unit/tty/set_fixture.h"
#include "tty/store.h"

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
    fault_row("tty_set_member", "faccessat", "EACCES", "-1",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n",
              "the lock file; no file is created");
    fault::fail("faccessat", 1, EACCES, fault::ALWAYS,
                fault::only_path(".tty_info_"));
    EXPECT_EQ(set("HOME", ""), -1);
    // Not known to be missing, so it is not created either.
    EXPECT_EQ(tty_log(), messages({open_failure("open", temporary(), ENOENT)}));
    EXPECT_TRUE(support::exists(lock_file()));
}

// A program that runs as the owner of its file: whether the file is there is
// asked as whom it is opened.
TEST_F(Set, file_is_looked_for_as_the_effective_user)
{
    ASSERT_EQ(chmod(path("/mng/tty").c_str(), 0700), 0);
    const int looks = fault::watch("faccessat", fault::only_what(AT_EACCESS));
    // Only root has another user to come from; for everybody the call counts.
    EXPECT_EQ(support::in_child([] {
                  return (setreuid(65534, geteuid()) == 0 || geteuid() != 0 ||
                          errno == EINVAL) &&
                         set("HOME", "/root") == 0;
              }),
              0);
    EXPECT_EQ(content(), "HOME=/root\r\n");
    EXPECT_EQ(set("TERM", "x"), 0);
    EXPECT_EQ(fault::seen(looks), 1);
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
