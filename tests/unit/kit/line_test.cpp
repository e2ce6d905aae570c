// The replacement of a line's file, and what makes it fail.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ttyline/kit.h>
#include <ttyline/tty.h>

#include "common/runtime_dir.h"
#include "kit/line.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"

static const kit_pair IDENTITY[] = {{"LOGNAME", "alice"},
                                    {"SESSIONID", "0123456789abcdef"}};

class KitLineFile : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        make_directories();
    }

    static int begin()
    {
        return kit_line_begin(300, IDENTITY, 2, 50);
    }

    std::string content() const
    {
        return support::slurp(path("/mng/tty/.tty_info_300"));
    }

    void put(const std::string &text) const
    {
        support::spill(path("/mng/tty/.tty_info_300"), text);
    }
};

TEST_F(KitLineFile, is_made_where_there_is_none_and_is_everybodys)
{
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(content(), "LOGNAME=alice\r\nSESSIONID=0123456789abcdef\r\n");
    struct stat status = {};
    ASSERT_EQ(stat(path("/mng/tty/.tty_info_300").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0777u);
}

TEST_F(KitLineFile, is_read_by_the_line_library)
{
    ASSERT_EQ(begin(), 0);
    char value[64];
    EXPECT_STREQ(tty_getenv(300, "LOGNAME", value, sizeof value), "alice");
    ASSERT_EQ(tty_setenv(300, "PRILEVEL", "3"), 0);
    EXPECT_EQ(kit_line_end(300, "0123456789abcdef", 50), 0);
    EXPECT_EQ(tty_getenv(300, "PRILEVEL", value, sizeof value), nullptr);
    EXPECT_STREQ(tty_getenv(300, "TTYPID", value, sizeof value), "-1");
}

TEST_F(KitLineFile, keeps_settings_and_the_terminal_in_their_order)
{
    put("SPEED=9600\r\nPRILEVEL=15\r\nTTYDEV=/dev/pts/1\r\njunk\r\n"
        "BANR_EXEC=hello");
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(content(),
              "SPEED=9600\r\nTTYDEV=/dev/pts/1\r\nBANR_EXEC=hello\r\n"
              "LOGNAME=alice\r\nSESSIONID=0123456789abcdef\r\n");
}

TEST_F(KitLineFile, end_of_another_session_changes_nothing)
{
    ASSERT_EQ(begin(), 0);
    const std::string before = content();
    EXPECT_EQ(kit_line_end(300, "0123456789abcde", 50), 0);
    EXPECT_EQ(kit_line_end(300, "0123456789abcdef0", 50), 0);
    EXPECT_EQ(kit_line_end(300, "fedcba9876543210", 50), 0);
    EXPECT_EQ(content(), before);
    put("");
    EXPECT_EQ(kit_line_end(300, "0123456789abcdef", 50), 0);
    EXPECT_EQ(content(), "");
}

TEST_F(KitLineFile, value_ends_at_its_first_line_end)
{
    const kit_pair pairs[] = {{"LOGNAME", "eve\r\nPRILEVEL=15"}};
    EXPECT_EQ(kit_line_begin(300, pairs, 1, 50), 0);
    EXPECT_EQ(content(), "LOGNAME=eve\r\n");
}

TEST_F(KitLineFile, file_that_is_far_too_large_is_not_kept)
{
    put("SPEED=" + std::string(size_t{300} * 1024, '9'));
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(content(), "LOGNAME=alice\r\nSESSIONID=0123456789abcdef\r\n");
}

TEST_F(KitLineFile, pipe_in_its_place_is_not_waited_for)
{
    ASSERT_EQ(mkfifo(path("/mng/tty/.tty_info_300").c_str(), 0600), 0);
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(content(), "LOGNAME=alice\r\nSESSIONID=0123456789abcdef\r\n");
}

TEST_F(KitLineFile, lock_of_another_program_is_given_up_in_time)
{
    int held[2];
    ASSERT_EQ(pipe2(held, O_CLOEXEC), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        const int fd = open(path("/mng/tty/.tty_info_300.lock").c_str(),
                            O_RDWR | O_CREAT, 0600);
        const bool locked = tty_flock_try(fd) == 0;
        const ssize_t ignored = write(held[1], locked ? "y" : "n", 1);
        static_cast<void>(ignored);
        pause();
    }
    char answer = 'n';
    ASSERT_EQ(read(held[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    EXPECT_EQ(begin(), -1);
    EXPECT_STREQ(kit_error(), "line 300 is locked by another program");
    kill(holder, SIGKILL);
    EXPECT_NE(support::wait_child(holder), -1);
    EXPECT_EQ(begin(), 0);
    close(held[0]);
    close(held[1]);
}

TEST_F(KitLineFile, broken_disk_leaves_the_line_as_it_was)
{
    fault_row("kit_line_begin", "write", "EIO", "-1", "",
              "the line as it was, no temporary file");
    fault_row("kit_line_begin", "write", "short", "0", "",
              "nothing: the rest is written");
    put("LOGNAME=before\r\n");
    fault::fail("write", 1, EIO, 1, fault::only_path(".tmp"));
    EXPECT_EQ(begin(), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(content(), "LOGNAME=before\r\n");
    EXPECT_FALSE(support::exists(path("/mng/tty/.tty_info_300.tmp")));
    fault::reset();
    fault::shorten("write", 1, 3, 1, fault::only_path(".tmp"));
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(content(), "LOGNAME=alice\r\nSESSIONID=0123456789abcdef\r\n");
}

// What it has already is still its own.
TEST_F(KitLineFile, on_a_full_disk_the_file_itself_is_written)
{
    fault_row("kit_line_begin", "write", "ENOSPC", "0", "",
              "the new content, written in place");
    put("LOGNAME=before\r\nPEERNAME=" + std::string(100, 'p') + "\r\n");
    fault::fail("write", 1, ENOSPC, 1, fault::only_path(".tmp"));
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(content(), "LOGNAME=alice\r\nSESSIONID=0123456789abcdef\r\n");
    EXPECT_FALSE(support::exists(path("/mng/tty/.tty_info_300.tmp")));
}

TEST_F(KitLineFile, file_that_would_have_to_grow_on_a_full_disk_is_emptied)
{
    fault_row("kit_line_begin", "write", "ENOSPC", "-1", "",
              "an empty file, when it cannot be written in place either");
    fault_row("kit_line_begin", "ftruncate", "EIO", "-1", "",
              "the new content before the rest of the old one");
    put("LOGNAME=before\r\n");
    fault::fail("write", 1, ENOSPC, 2);
    EXPECT_EQ(begin(), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(content(), "");
    fault::reset();
    fault::fail("write", 1, ENOSPC, 1, fault::only_path(".tmp"));
    fault::fail("ftruncate", 1, EIO);
    EXPECT_EQ(begin(), -1);
    EXPECT_EQ(errno, ENOSPC);
    fault::reset();
    // One that is not there stays so.
    ASSERT_EQ(unlink(path("/mng/tty/.tty_info_300").c_str()), 0);
    fault::fail("write", 1, ENOSPC);
    EXPECT_EQ(begin(), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(KitLineFile, file_that_cannot_be_read_or_renamed_stays)
{
    fault_row("kit_line_begin", "read", "EIO", "-1", "", "the line as it was");
    fault_row("kit_line_begin", "rename", "EACCES", "-1", "",
              "the line as it was, no temporary file");
    fault_row("kit_line_begin", "open", "EMFILE", "-1", "",
              "the line as it was");
    fault_row("kit_line_begin", "calloc", "ENOMEM", "-1", "",
              "the line as it was");
    fault_row("kit_line_begin", "malloc", "ENOMEM", "-1", "",
              "the line as it was");
    put("LOGNAME=before\r\n");
    fault::fail("read", 1, EIO, 1, fault::only_path("tty_info_300"));
    EXPECT_EQ(begin(), -1);
    fault::reset();
    fault::fail("rename", 1, EACCES);
    EXPECT_EQ(begin(), -1);
    EXPECT_EQ(content(), "LOGNAME=before\r\n");
    fault::reset();
    for (const char *part : {".lock", ".tmp"}) {
        fault::fail("open", 1, EMFILE, 1, fault::only_path(part));
        EXPECT_EQ(begin(), -1) << part;
        EXPECT_EQ(content(), "LOGNAME=before\r\n");
        fault::reset();
    }
    for (const char *call : {"calloc", "malloc"}) {
        fault::fail(call, 1, ENOMEM);
        EXPECT_EQ(begin(), -1) << call;
        EXPECT_EQ(content(), "LOGNAME=before\r\n");
        fault::reset();
    }
}

TEST_F(KitLineFile, is_cleaned_of_the_session_that_is_meant)
{
    ASSERT_EQ(begin(), 0);
    EXPECT_EQ(kit_line_clean(300, "fedcba9876543210", 50), 0);
    EXPECT_EQ(content(), "LOGNAME=alice\r\nSESSIONID=0123456789abcdef\r\n");
    EXPECT_EQ(kit_line_clean(300, "0123456789abcdef", 50), 0);
    EXPECT_EQ(content().find("LOGNAME"), std::string::npos);
    EXPECT_NE(content().find("SESSIONID=0\r\n"), std::string::npos);
    EXPECT_EQ(kit_line_clean(TTY_LINES, "0", 50), -1);
    EXPECT_STREQ(kit_error(), "1586 is no line");
}

TEST_F(KitLineFile, number_that_is_no_line_is_refused)
{
    EXPECT_EQ(kit_line_clean(-1, "0", 50), -1);
    EXPECT_STREQ(kit_error(), "-1 is no line");
}

// Keys that begin alike are not the same.
TEST_F(KitLineFile, key_is_a_whole_word)
{
    put("SPEEDY=1\r\nSPEED=9600\r\nSESSIONIDS=0123456789abcdef\r\n");
    EXPECT_EQ(kit_line_end(300, "0123456789abcdef", 50), 0);
    EXPECT_NE(content().find("SPEEDY=1"), std::string::npos);
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(content(), "SPEED=9600\r\n"
                         "LOGNAME=alice\r\nSESSIONID=0123456789abcdef\r\n");
}

TEST_F(KitLineFile, path_that_is_too_long_is_said)
{
    // No room for the name, and none for the line's number behind it.
    const std::string name = "/mng/tty/.tty_info";
    const size_t room = TTY_PATH_SIZE - 1 - name.size() - runtime_dir.size();
    for (const size_t length : {room, room - 1, room - 3}) {
        setenv("TMPDIR", (runtime_dir + "/" + std::string(length, 'l')).c_str(),
               1);
        EXPECT_EQ(begin(), -1);
        EXPECT_STREQ(kit_error(), "the path of line 300's file is too long");
    }
    setenv("TMPDIR", runtime_dir.c_str(), 1);
}

TEST_F(KitLineFile, interrupted_calls_are_done_again)
{
    fault_row("kit_line_begin", "read", "EINTR", "0", "", "the new content");
    fault_row("kit_line_begin", "write", "EINTR", "0", "", "the new content");
    put("SPEED=9600\r\n");
    fault::fail("read", 1, EINTR, 3, fault::only_path("tty_info_300"));
    fault::fail("write", 1, EINTR, 3, fault::only_path(".tmp"));
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(content(), "SPEED=9600\r\n"
                         "LOGNAME=alice\r\nSESSIONID=0123456789abcdef\r\n");
}

TEST_F(KitLineFile, file_that_cannot_be_asked_what_it_is_counts_as_missing)
{
    fault_row("kit_line_begin", "fstat", "EIO", "-1", "", "the line as it was");
    fault_row("kit_line_begin", "fchmod", "EPERM", "0", "",
              "the new content, with the mode that the mask leaves");
    put("SPEED=9600\r\n");
    // Of the lock, which then cannot be trusted.
    fault::fail("fstat", 1, EIO);
    EXPECT_EQ(begin(), -1);
    EXPECT_EQ(content(), "SPEED=9600\r\n");
    fault::reset();
    fault::fail("fchmod", 1, EPERM, fault::ALWAYS);
    EXPECT_EQ(begin(), 0);
    struct stat status = {};
    ASSERT_EQ(stat(path("/mng/tty/.tty_info_300").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
    fault::reset();
    // Of the file itself: there is nothing to keep.
    fault::fail("fstat", 1, EIO, 1, fault::only_path("tty_info_300"));
    put("SPEED=9600\r\n");
    EXPECT_EQ(begin(), -1);
}

TEST_F(KitLineFile, lock_that_cannot_be_had_at_all_is_not_waited_for)
{
    fault_row("kit_line_begin", "fcntl", "ENOLCK", "-1", "",
              "the line as it was");
    fault_row("kit_line_begin", "tty_flock_try", "result -1", "-1", "",
              "the line as it was");
    put("LOGNAME=before\r\n");
    fault::fail("fcntl", 1, ENOLCK, fault::ALWAYS, fault::only_path(".lock"));
    EXPECT_EQ(kit_line_begin(300, IDENTITY, 2, 600000), -1);
    EXPECT_EQ(content(), "LOGNAME=before\r\n");
}
