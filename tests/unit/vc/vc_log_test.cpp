#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/privroot.h"
#include "tests/unit/vc/vc_fixture.h"

using VcLogTest = VcTest;
using VcLogPrivateRoot = support::private_root_test;
using support::slurp;
using support::spill;

// What the hook got. It runs in a signal handler too, so it allocates nothing.
static char g_taken[16][2048];
static int g_taken_count;
// Called inside the hook, once.
static void (*g_in_hook)();
static int g_depth;
static int g_deepest;

// The device's system-log hook, as a process provides it.
extern "C" void printk_syslog_ext(int level, const char *module,
                                  const char *tag, int kind, const char *fmt,
                                  ...)
{
    va_list args;

    g_deepest = std::max(g_deepest, ++g_depth);
    if (g_in_hook != nullptr) {
        void (*before)() = g_in_hook;
        g_in_hook = nullptr;
        before();
    }
    if (g_taken_count < 16) {
        char *line = g_taken[g_taken_count++];
        const int used = snprintf(line, sizeof g_taken[0], "%d %s %s %d ",
                                  level, module, tag, kind);
        va_start(args, fmt);
        (void)vsnprintf(line + used,
                        sizeof g_taken[0] - static_cast<size_t>(used), fmt,
                        args);
        va_end(args);
    }
    g_depth--;
}

static std::vector<std::string> system_log()
{
    return {g_taken, g_taken + g_taken_count};
}

TEST_F(VcLogTest, a_line_holds_stamp_pid_and_text)
{
    vc_debug_msg("value %d\r\n", 7);
    const std::string line = slurp(path("/mng/tty/.vc_dump.txt"));
    EXPECT_EQ(support::without_stamp_and_pid(line, getpid()), "value 7\r\n");
    // Two blanks: the stamp's own and the one before the process id.
    EXPECT_EQ(line.substr(15, 2), "  ");
}

TEST_F(VcLogTest, lines_are_appended)
{
    vc_debug_msg("one\n");
    vc_debug_msg("two\n");
    EXPECT_EQ(vc_log(), (std::vector<std::string>{"one\n", "two\n"}));
}

TEST_F(VcLogTest, no_line_end_is_added)
{
    vc_debug_msg("text");
    EXPECT_EQ(slurp(path("/mng/tty/.vc_dump.txt")).back(), 't');
}

TEST_F(VcLogTest, a_message_has_room_for_1023_bytes_of_its_own)
{
    vc_debug_msg("%s", std::string(3000, 'x').c_str());
    const std::string line = slurp(path("/mng/tty/.vc_dump.txt"));
    EXPECT_EQ(std::count(line.begin(), line.end(), 'x'), 1023);
}

TEST_F(VcLogTest, the_file_is_created_with_mode_0777_under_the_mask)
{
    umask(027);
    vc_debug_msg("x\n");
    struct stat status;
    ASSERT_EQ(stat(path("/mng/tty/.vc_dump.txt").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0750u);
}

TEST_F(VcLogTest, a_file_of_one_mebibyte_is_kept)
{
    spill(path("/mng/tty/.vc_dump.txt"), std::string(1048576, 'x'));
    vc_debug_msg("line\n");
    EXPECT_GT(slurp(path("/mng/tty/.vc_dump.txt")).size(), 1048576u);
}

TEST_F(VcLogTest, a_file_of_one_byte_more_is_emptied_first)
{
    spill(path("/mng/tty/.vc_dump.txt"), std::string(1048577, 'x'));
    vc_debug_msg("line\n");
    EXPECT_EQ(vc_log(), (std::vector<std::string>{"line\n"}));
}

TEST_F(VcLogTest, a_missing_directory_drops_the_message)
{
    fault_row("vc_debug_msg", "open", "ENOENT", "nothing", "",
              "the line is lost; nothing in the system log");
    rmdir(path("/mng/tty").c_str());
    vc_debug_msg("lost\n");
    EXPECT_TRUE(system_log().empty());
}

TEST_F(VcLogTest, another_failure_reaches_the_system_log)
{
    fault_row("vc_debug_msg", "open", "EMFILE", "nothing",
              "VC: %d %s open file %s fail, err:%d.\r\n",
              "the line is in the system log, behind this one");
    const std::string name = path("/mng/tty/.vc_dump.txt");
    fault::fail("open", 1, EMFILE);
    vc_debug_msg("kept %d\n", 5);
    const auto texts = system_log();
    ASSERT_EQ(texts.size(), 2u);
    const std::string start =
        "7 UNKNOW_MODULE DEBUG 2 VC: " + std::to_string(getpid()) + " ";
    EXPECT_EQ(texts[0], start + "vc_debug_msg open file " + name +
                            " fail, err:" + std::to_string(EMFILE) + ".\r\n");
    EXPECT_EQ(texts[1].find(start), 0u);
    const std::string line = texts[1].substr(start.size());
    EXPECT_EQ(support::without_stamp_and_pid(line.substr(0, line.size() - 3),
                                             getpid()),
              "kept 5\n");
    EXPECT_EQ(line.substr(line.size() - 3), ".\r\n");
}

static void end_a_child()
{
    siginfo_t ended;
    const pid_t pid = fork();

    if (pid == 0) {
        _exit(0);
    }
    // Its signal has come by then.
    waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT);
}

// A hook may take a lock, and the handler logs as well: what it interrupted
// would hold the lock for ever.
TEST_F(VcLogTest, a_childs_end_does_not_interrupt_the_hook)
{
    fault_row("vc_debug_msg", "open", "EMFILE", "nothing", "VC: %d %s.\r\n",
              "a child that ends meanwhile is reaped after the hook");
    add(plain(AF_INET, 23, nullptr, 6));
    fault::fail("open", 1, EMFILE, fault::ALWAYS);
    g_in_hook = end_a_child;
    vc_debug_msg("text\n");
    fault::reset();
    EXPECT_EQ(g_deepest, 1);
    // It comes afterwards, and not before the whole line is out.
    const auto texts = system_log();
    ASSERT_GE(texts.size(), 3u);
    EXPECT_NE(texts[1].find("text\n"), std::string::npos);
    const bool captured = std::any_of(
        texts.begin() + 2, texts.end(), [](const std::string &line) {
            return line.find("sigchld signal capture") != std::string::npos;
        });
    EXPECT_TRUE(captured);
}

TEST_F(VcLogTest, the_signal_mask_is_as_it_was_after_the_hook)
{
    fault_row("vc_debug_msg", "open", "EMFILE", "nothing", "VC: %d %s.\r\n",
              "the signal mask as it was");
    sigset_t mask;
    for (const int how : {SIG_UNBLOCK, SIG_BLOCK}) {
        sigemptyset(&mask);
        sigaddset(&mask, SIGCHLD);
        pthread_sigmask(how, &mask, nullptr);
        fault::fail("open", 1, EMFILE);
        vc_debug_msg("text\n");
        fault::reset();
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(sigismember(&mask, SIGCHLD), how == SIG_BLOCK ? 1 : 0);
    }
}

TEST_F(VcLogTest, a_mask_that_cannot_be_changed_is_left_alone)
{
    fault_row("vc_debug_msg", "pthread_sigmask", "EINVAL", "nothing",
              "VC: %d %s.\r\n", "the signal mask as it was");
    fault::fail("open", 1, EMFILE);
    const int changes = fault::watch("pthread_sigmask");
    fault::fail("pthread_sigmask", 1, EINVAL);
    vc_debug_msg("text\n");
    EXPECT_EQ(system_log().size(), 2u);
    EXPECT_EQ(fault::seen(changes), 1);
}

TEST_F(VcLogTest, a_write_that_fails_is_not_reported)
{
    fault_row("vc_debug_msg", "write", "ENOSPC", "nothing", "",
              "the line is lost; nothing in the system log");
    fault::fail("write", 1, ENOSPC);
    vc_debug_msg("lost\n");
    EXPECT_TRUE(system_log().empty());
}

TEST_F(VcLogTest, the_path_is_taken_from_tmpdir_once)
{
    setenv("TMPDIR", "/nowhere", 1);
    vc_debug_msg("here\n");
    setenv("TMPDIR", runtime_dir.c_str(), 1);
    EXPECT_EQ(vc_log(), (std::vector<std::string>{"here\n"}));
}

TEST_F(VcLogPrivateRoot, before_initialisation_the_early_file_is_used)
{
    make_directories("/tmp/vkd/0/mng/tty");
    vc_debug_msg("early\n");
    EXPECT_EQ(support::without_stamp_and_pid(
                  slurp("/tmp/vkd/0/mng/tty/.vc_dump.txt"), getpid()),
              "early\n");
}

TEST_F(VcLogPrivateRoot, without_tmpdir_the_log_lies_under_the_root)
{
    vc_debug_init();
    vc_debug_msg("rooted\n");
    EXPECT_EQ(support::without_stamp_and_pid(slurp("/mng/tty/.vc_dump.txt"),
                                             getpid()),
              "rooted\n");
}
