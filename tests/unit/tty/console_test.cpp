#include "tty/console.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <thread>
#include <vector>

#include "tests/support/descriptors.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/console_fixture.h"

class ConsoleName : public console_test
{
  protected:
    // The name that a fresh process works out from these arguments.
    static std::string name_for(const std::string &arguments)
    {
        int answer[2];
        char name[64] = {};

        support::put_over("/proc/cmdline", arguments);
        EXPECT_EQ(pipe2(answer, O_CLOEXEC), 0);
        const pid_t pid = fork();
        if (pid == 0) {
            const char *own = tty_getconsolename();
            const ssize_t told = write(answer[1], own, strlen(own));
            _exit(told > 0 && !support::open_descriptors().empty() ? 0 : 1);
        }
        EXPECT_EQ(support::wait_child(pid), 0);
        EXPECT_GT(read(answer[0], name, sizeof name - 1), 0);
        close(answer[0]);
        close(answer[1]);
        return name;
    }

    // Arguments in which text begins behind so many characters.
    static std::string behind(size_t characters, const std::string &text)
    {
        return std::string(characters, 'x') + text + "\n";
    }
};

TEST_F(ConsoleName, is_the_serial_one_of_the_kernel_arguments)
{
    EXPECT_EQ(name_for("quiet console=ttyS1,115200 panic=1\n"), "/dev/ttyS1");
    EXPECT_EQ(name_for("console=ttyS0\n"), "/dev/ttyS0");
    EXPECT_EQ(name_for("console=ttyS9"), "/dev/ttyS9");
}

TEST_F(ConsoleName, has_one_digit_only)
{
    EXPECT_EQ(name_for("console=ttyS12\n"), "/dev/ttyS1");
    EXPECT_EQ(name_for("console=ttyS34,9600\n"), "/dev/ttyS3");
}

TEST_F(ConsoleName, is_tty_s0_without_a_serial_console)
{
    for (const char *arguments :
         {"", "\n", "quiet\n", "console=ttyAMA0\n", "console=tty1\n",
          "console=\n", "ttyS1\n", "Console=ttyS1\n", "console=ttys1\n"}) {
        EXPECT_EQ(name_for(arguments), "/dev/ttyS0") << arguments;
    }
}

TEST_F(ConsoleName, is_tty_s0_without_a_digit)
{
    for (const char *arguments :
         {"console=ttyS\n", "console=ttyS", "console=ttySx1\n",
          "console=ttyS/1\n", "console=ttyS:\n", "console=ttyS 1\n"}) {
        EXPECT_EQ(name_for(arguments), "/dev/ttyS0") << arguments;
    }
}

TEST_F(ConsoleName, comes_from_the_first_occurrence)
{
    EXPECT_EQ(name_for("console=ttyS2 console=ttyS3\n"), "/dev/ttyS2");
    EXPECT_EQ(name_for("console=tty0 console=ttyS4\n"), "/dev/ttyS4");
    EXPECT_EQ(name_for("console=ttyS console=ttyS3\n"), "/dev/ttyS0");
    EXPECT_EQ(name_for("netconsole=ttyS5\n"), "/dev/ttyS5");
}

TEST_F(ConsoleName, comes_from_the_first_line)
{
    EXPECT_EQ(name_for("quiet\nconsole=ttyS4\n"), "/dev/ttyS0");
}

TEST_F(ConsoleName, comes_from_the_first1022_characters)
{
    // "console=ttyS7" has 13.
    EXPECT_EQ(name_for(behind(1009, "console=ttyS7")), "/dev/ttyS7");
    EXPECT_EQ(name_for(behind(1010, "console=ttyS7")), "/dev/ttyS0");
}

TEST_F(ConsoleName, is_tty_s0_when_the_arguments_cannot_be_read)
{
    fault_row("tty_getconsolename", "fopen", "EMFILE", "/dev/ttyS0", "",
              "the name is kept, also when descriptors are back");
    struct rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const struct rlimit none = {3, limit.rlim_max};
    support::put_over("/proc/cmdline", "console=ttyS1\n");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string name = tty_getconsolename();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(name, "/dev/ttyS0");
    EXPECT_STREQ(tty_getconsolename(), "/dev/ttyS0");
}

TEST_F(ConsoleName, is_tty_s0_without_memory)
{
    fault_row("tty_getconsolename", "calloc", "ENOMEM", "/dev/ttyS0", "",
              "the name is kept, also when memory is back");
    support::put_over("/proc/cmdline", "console=ttyS1\n");
    fault::fail("calloc", 1, ENOMEM);
    EXPECT_STREQ(tty_getconsolename(), "/dev/ttyS0");
    EXPECT_STREQ(tty_getconsolename(), "/dev/ttyS0");
    EXPECT_EQ(fault::calls("calloc"), 1);
}

TEST_F(ConsoleName, is_worked_out_once)
{
    support::put_over("/proc/cmdline", "console=ttyS1\n");
    const char *name = tty_getconsolename();
    EXPECT_STREQ(name, "/dev/ttyS1");
    support::put_over("/proc/cmdline", "console=ttyS2\n");
    EXPECT_EQ(tty_getconsolename(), name);
    EXPECT_STREQ(name, "/dev/ttyS1");
}

TEST_F(ConsoleName, is_the_same_for_threads_that_ask_at_once)
{
    std::vector<std::thread> threads;
    support::put_over("/proc/cmdline", "console=ttyS3\n");
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([] {
            EXPECT_STREQ(tty_getconsolename(), "/dev/ttyS3");
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

class Console : public console_test
{
  protected:
    // The descriptor that is the console, its status and descriptor flags.
    static int seen_flags;
    static int seen_descriptor_flags;

    static void note_flags()
    {
        for (const std::string &each : support::open_descriptors()) {
            const int fd = atoi(each.c_str());
            const int flags = fcntl(fd, F_GETFL);
            if (each.find(" -> /dev/ttyS0") != std::string::npos &&
                (flags & O_ACCMODE) != O_RDWR) {
                seen_flags = flags;
                seen_descriptor_flags = fcntl(fd, F_GETFD);
            }
        }
    }
};

int Console::seen_flags = -1;
int Console::seen_descriptor_flags = -1;

TEST_F(Console, takes_the_formatted_text_as_it_is)
{
    make_console();
    tty_log_msg("%s(line %d) 100%%\r\n", "f", 7);
    EXPECT_EQ(console(), "f(line 7) 100%\r\n");
}

TEST_F(Console, is_the_one_named_by_the_kernel_arguments)
{
    support::put_over("/proc/cmdline", "console=ttyS1,115200\n");
    make_console("/dev/ttyS1");
    tty_log_msg("text");
    EXPECT_EQ(console(), "text");
}

TEST_F(Console, message_is_cut_at2047_bytes)
{
    make_console();
    tty_log_msg("%s", std::string(2047, 'a').c_str());
    EXPECT_EQ(console(), std::string(2047, 'a'));
    tty_log_msg("%s", std::string(2048, 'b').c_str());
    EXPECT_EQ(console(), std::string(2047, 'b'));
    tty_log_msg("x%s", std::string(10000, 'c').c_str());
    EXPECT_EQ(console(), "x" + std::string(2046, 'c'));
}

TEST_F(Console, message_is_dropped_when_it_cannot_be_opened)
{
    fault_row("tty_log_msg", "open", "ENOENT, EIO", "nothing", "",
              "the message is lost");
    const int writes = fault::watch("write");
    tty_log_msg("text");
    EXPECT_FALSE(support::exists("/dev/ttyS0"));
    make_console();
    fault::fail("open", 1, EIO, 1, fault::only_path("/dev/ttyS0"));
    tty_log_msg("text");
    EXPECT_EQ(console(), "");
    EXPECT_EQ(fault::seen(writes), 0);
}

TEST_F(Console, message_that_cannot_be_written_is_dropped)
{
    fault_row("tty_log_msg", "write", "EIO", "nothing", "",
              "the message is lost, the console closed");
    make_console();
    fault::fail("write", 1, EIO);
    tty_log_msg("lost");
    tty_log_msg("text");
    EXPECT_EQ(console(), "text");
}

TEST_F(Console, short_writes_are_completed)
{
    fault_row("tty_log_msg", "write", "short", "nothing", "",
              "the whole message");
    make_console();
    fault::shorten("write", 1, 1, fault::ALWAYS);
    tty_log_msg("text");
    EXPECT_EQ(console(), "text");
}

TEST_F(Console, is_opened_write_only_and_not_for_children)
{
    make_console();
    fault::run("write", 1, note_flags);
    tty_log_msg("text");
    EXPECT_EQ(seen_flags & O_ACCMODE, O_WRONLY);
    EXPECT_EQ(seen_descriptor_flags, FD_CLOEXEC);
}

TEST_F(Console, is_left_in_blocking_mode)
{
    make_console();
    fault::run("write", 1, note_flags);
    tty_log_msg("text");
    EXPECT_EQ(seen_flags & O_NONBLOCK, 0);
}

// The kernel gives no terminal to a process that opens it for writing only,
// others may: that nothing else happens cannot tell.
TEST_F(Console, is_opened_without_becoming_the_controlling_terminal)
{
    fault::filter wanted = fault::only_path("/dev/ttyS0");
    make_console();
    const int all = fault::watch("open", wanted);
    wanted.what = O_WRONLY | O_NOCTTY | O_CLOEXEC;
    const int as_wanted = fault::watch("open", wanted);
    tty_log_msg("text");
    EXPECT_EQ(fault::seen(all), 1);
    EXPECT_EQ(fault::seen(as_wanted), 1);
}
