#include "vc/child.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/spawn_fixture.h"
#include "vc/pty.h"
#include "vc/session.h"

static termios settings_of(int fd)
{
    termios settings = {};
    EXPECT_EQ(tcgetattr(fd, &settings), 0);
    return settings;
}

class ChildTest : public SpawnFixture
{
  protected:
    // Runs vc_child_proc() in a process of its own. Returns its status.
    int run_proc(int (*shell)(int, const char *), const char *fails = nullptr,
                 int nth = 1)
    {
        char slave[20];
        const int master = vc_ptym_open(slave, sizeof slave);
        vc_child child = {};
        child.ttyno = 300;
        child.reg = plain(AF_INET, 23, nullptr, 6);
        child.reg.shell_func = shell;
        slave_ = slave;
        const pid_t pid = fork();
        if (pid == 0) {
            if (fails != nullptr) {
                fault::fail(fails, nth, EIO);
            }
            vc_child_proc(master, 300, slave, &child);
        }
        const int status = support::wait_child(pid);
        close(master);
        return status;
    }

    std::string slave_;
};

static int shell_ok(int, const char *)
{
    report("ran");
    return 0;
}

TEST_F(ChildTest, a_shell_that_returns_ends_the_child_with_1)
{
    EXPECT_EQ(run_proc(shell_ok), 1 << 8);
    EXPECT_EQ(result(), "ran");
}

TEST_F(ChildTest, a_shell_that_fails_is_logged)
{
    EXPECT_EQ(run_proc([](int, const char *) {
                  return 5;
              }),
              1 << 8);
    EXPECT_TRUE(
        child_says("vc:shell fun fail, tty:300 pts_name:" + slave_ + "\n"));
}

TEST_F(ChildTest, a_missing_shell_is_logged_and_nothing_set)
{
    EXPECT_EQ(run_proc(nullptr), 1 << 8);
    EXPECT_TRUE(child_says("vc:shell fun is NULL\n"));
    EXPECT_FALSE(support::exists(path("/mng/tty/.tty_info_300")));
}

TEST_F(ChildTest, the_terminal_is_controlling_and_on_all_three_streams)
{
    run_proc([](int, const char *dev) {
        std::string text;
        for (int fd = 0; fd < 3; fd++) {
            text += std::string(ttyname(fd)) == dev ? "same " : "other ";
        }
        text += getsid(0) == getpid() ? "leader " : "member ";
        text += tcgetpgrp(0) == getpgrp() ? "foreground " : "background ";
        const int tty = open("/dev/tty", O_RDWR);
        text += tty >= 0 ? "controlled" : "free";
        report(text);
        return 0;
    });
    EXPECT_EQ(result(), "same same same leader foreground controlled");
}

TEST_F(ChildTest, the_terminals_settings)
{
    run_proc([](int, const char *) {
        const termios settings = settings_of(0);
        const bool raw =
            (settings.c_lflag & (ICANON | ECHO)) == 0 &&
            (settings.c_iflag & (INPCK | ISTRIP | INLCR | ICRNL)) == 0;
        const bool newline = (settings.c_oflag & ONLCR) != 0;
        report(raw && newline ? "as wanted" : "otherwise");
        return 0;
    });
    EXPECT_EQ(result(), "as wanted");
}

TEST_F(ChildTest, the_environment_names_the_line)
{
    run_proc([](int, const char *) {
        report(std::string(getenv("TTYNUM")) + " " + getenv("TTYTYPE") + " " +
               getenv("PROTOCOL") + " " + getenv("CONN_TYPE"));
        return 0;
    });
    EXPECT_EQ(result(), "300 4 6 2");
}

TEST_F(ChildTest, ttydev_is_stored)
{
    run_proc(shell_ok);
    EXPECT_EQ(support::slurp(path("/mng/tty/.tty_info_300")),
              "TTYDEV=" + slave_ + "\r\n");
}

TEST_F(ChildTest, ttydev_that_cannot_be_stored_is_logged)
{
    fault_row("vc_child_proc", "tty_setenv", "EISDIR",
              "the session program runs", "vc: %s set dev %s fail\n", "");
    make_directories();
    ASSERT_EQ(mkdir(path("/mng/tty/.tty_info_300.lock").c_str(), 0777), 0);
    run_proc(shell_ok);
    EXPECT_TRUE(child_says("vc: vc_child_proc set dev " + slave_ + " fail\n"));
    EXPECT_EQ(result(), "ran");
}

TEST_F(ChildTest, a_monitored_line_gets_a_link)
{
    make_directories();
    ASSERT_EQ(mkdir(path("/mng/tty/monitor").c_str(), 0777), 0);
    support::spill(path("/mng/tty/monitor/300"), "old");
    ASSERT_EQ(tty_setenv(300, "MONITOR", "1"), 0);
    run_proc(shell_ok);
    char target[64] = {};
    EXPECT_GT(readlink(path("/mng/tty/monitor/300").c_str(), target,
                       sizeof target - 1),
              0);
    EXPECT_EQ(target, slave_);
}

TEST_F(ChildTest, a_link_that_cannot_be_made_is_done_without)
{
    fault_row("vc_child_proc", "symlink", "EIO", "the session program runs", "",
              "no link");
    fault_row("vc_child_proc", "unlink", "EIO", "the session program runs", "",
              "the old link");
    make_directories();
    ASSERT_EQ(mkdir(path("/mng/tty/monitor").c_str(), 0777), 0);
    ASSERT_EQ(tty_setenv(300, "MONITOR", "1"), 0);
    EXPECT_EQ(run_proc(shell_ok, "symlink"), 1 << 8);
    EXPECT_EQ(result(), "ran");
    EXPECT_FALSE(support::exists(path("/mng/tty/monitor/300")));
    unlink(path("/result").c_str());
    support::spill(path("/mng/tty/monitor/300"), "old");
    EXPECT_EQ(run_proc(shell_ok, "unlink"), 1 << 8);
    EXPECT_EQ(result(), "ran");
    EXPECT_EQ(support::slurp(path("/mng/tty/monitor/300")), "old");
}

TEST_F(ChildTest, an_unmonitored_line_gets_none)
{
    make_directories();
    ASSERT_EQ(mkdir(path("/mng/tty/monitor").c_str(), 0777), 0);
    run_proc(shell_ok);
    EXPECT_FALSE(support::exists(path("/mng/tty/monitor/300")));
    // Of the last one nothing is left in 32 bits.
    for (const char *value : {"0", "x", "4294967296"}) {
        ASSERT_EQ(tty_setenv(300, "MONITOR", value), 0);
        run_proc(shell_ok);
        EXPECT_FALSE(support::exists(path("/mng/tty/monitor/300")));
    }
    EXPECT_FALSE(support::exists(path("/mng/tty/monitor/0")));
}

TEST_F(ChildTest, a_blank_monitor_value_is_logged_and_counts_as_0)
{
    ASSERT_EQ(tty_setenv(300, "MONITOR", "  "), 0);
    run_proc(shell_ok);
    EXPECT_TRUE(child_says("vc:vc_child_proc sscanf return fail, errno["));
    EXPECT_EQ(result(), "ran");
}

// Line 0 is read from the tree beside the caller's own, so that its value can
// be had where the caller's own paths are too long.
TEST_F(ChildTest, a_monitor_path_that_does_not_fit_is_logged)
{
    const std::string beside = path("/0");
    for (const char *name : {"", "/mng", "/mng/tty"}) {
        ASSERT_EQ(mkdir((beside + name).c_str(), 0777), 0);
    }
    support::spill(beside + "/mng/tty/.tty_info_0", "MONITOR=1\r\n");
    setenv("TMPDIR",
           path("/" + std::string(115 - path("/").size(), 'd')).c_str(), 1);
    char slave[20];
    const int master = vc_ptym_open(slave, sizeof slave);
    vc_child child = {};
    child.reg = plain(AF_INET, 23, nullptr, 6);
    child.reg.shell_func = [](int, const char *) {
        return 0;
    };
    const pid_t pid = fork();
    if (pid == 0) {
        vc_child_proc(master, 0, slave, &child);
    }
    EXPECT_EQ(support::wait_child(pid), 1 << 8);
    close(master);
    setenv("TMPDIR", runtime_dir.c_str(), 1);
    EXPECT_TRUE(
        child_says("vc:vc_child_proc make path /mng/tty/monitor fail\r\n"));
}

TEST_F(ChildTest, a_session_that_cannot_be_started_ends_with_1)
{
    fault_row("vc_child_proc", "setsid", "EIO", "the child ends with status 1",
              "vc: setid error, err:%s.\n", "the session program has not run");
    EXPECT_EQ(run_proc(shell_ok, "setsid"), 1 << 8);
    EXPECT_TRUE(child_says(std::string("vc: setid error, err:") +
                           strerror(EIO) + ".\n"));
    EXPECT_FALSE(support::exists(path("/result")));
}

TEST_F(ChildTest, a_slave_that_cannot_be_opened_ends_the_child_with_1)
{
    fault_row("vc_child_proc", "open", "ENOENT", "the child ends with status 1",
              "vc: can't open slave pty: %s, error %d\n", "");
    vc_child child = {};
    child.ttyno = 300;
    char slave[20];
    const int master = vc_ptym_open(slave, sizeof slave);
    const pid_t pid = fork();
    if (pid == 0) {
        vc_child_proc(master, 300, "/nowhere/0", &child);
    }
    EXPECT_EQ(support::wait_child(pid), 1 << 8);
    close(master);
    EXPECT_TRUE(child_says("vc: vc ptys open /nowhere/0 error, err:"));
    EXPECT_TRUE(child_says("vc: can't open slave pty: /nowhere/0, error -5\n"));
}

TEST_F(ChildTest, settings_that_cannot_be_read_are_left_alone)
{
    fault_row("vc_child_proc", "tcgetattr", "EIO", "the session program runs",
              "vc: can't get attr %d, error:%s\n",
              "the terminal's own settings");
    EXPECT_EQ(run_proc(shell_ok, "tcgetattr"), 1 << 8);
    EXPECT_TRUE(child_says("vc: can't get attr "));
    EXPECT_EQ(result(), "ran");
}

TEST_F(ChildTest, settings_that_cannot_be_set_are_logged)
{
    fault_row("vc_child_proc", "tcsetattr", "EIO", "the session program runs",
              "vc: child proc set tcsetattr fail, error:%s\n", "");
    EXPECT_EQ(run_proc(shell_ok, "tcsetattr"), 1 << 8);
    EXPECT_TRUE(
        child_says(std::string("vc: child proc set tcsetattr fail, error:") +
                   strerror(EIO) + "\n"));
    EXPECT_EQ(result(), "ran");
}

TEST_F(ChildTest, a_terminal_that_cannot_be_taken_ends_the_child_with_1)
{
    fault_row("vc_child_proc", "ioctl", "EIO", "the child ends with status 1",
              "vc: TIOCSCTTY error\n", "the session program has not run");
    EXPECT_EQ(run_proc(shell_ok, "ioctl"), 1 << 8);
    EXPECT_TRUE(child_says("vc: TIOCSCTTY error\n"));
    EXPECT_FALSE(support::exists(path("/result")));
}

TEST_F(ChildTest, a_stream_that_cannot_be_replaced_ends_the_child_with_1)
{
    fault_row("vc_child_proc", "dup2", "EIO", "the child ends with status 1",
              "vc: dup2 error in %s, err:%s.\n",
              "the session program has not run");
    const char *names[] = {"stdin", "stdout", "stderr"};
    for (int stream = 0; stream < 3; stream++) {
        EXPECT_EQ(run_proc(shell_ok, "dup2", stream + 1), 1 << 8);
        EXPECT_TRUE(child_says(std::string("vc: dup2 error in ") +
                               names[stream] + ", err:" + strerror(EIO) +
                               ".\n"));
    }
    EXPECT_FALSE(support::exists(path("/result")));
}

TEST_F(ChildTest, the_slaves_own_descriptor_is_closed_and_logged)
{
    run_proc(shell_ok);
    EXPECT_TRUE(child_says("vc:fds "));
}

TEST_F(ChildTest, a_daemon_without_standard_streams_gets_its_terminal_too)
{
    char slave[20];
    const int master = vc_ptym_open(slave, sizeof slave);
    vc_child child = {};
    child.ttyno = 300;
    child.reg = plain(AF_INET, 23, nullptr, 6);
    child.reg.shell_func = [](int, const char *dev) {
        report(isatty(0) && std::string(ttyname(2)) == dev ? "tty" : "none");
        return 0;
    };
    const pid_t pid = fork();
    if (pid == 0) {
        close(0);
        close(1);
        close(2);
        vc_child_proc(master, 300, slave, &child);
    }
    EXPECT_EQ(support::wait_child(pid), 1 << 8);
    close(master);
    EXPECT_EQ(result(), "tty");
}

TEST_F(ChildTest, types_of_terminals_by_protocol)
{
    const int types[] = {4, 7, 7, 4, 4, 4, 4, 0, 11, 7, 0, 4};
    for (uint32_t protocol = 0; protocol <= 11; protocol++) {
        vc_child child = {};
        child.ttyno = 1585;
        child.reg.protocol = protocol;
        child.reg.socket_type = 30;
        setenv("TTYTYPE", "old", 1);
        vc_child_setenvs(&child);
        EXPECT_EQ(getenv("TTYTYPE"), std::to_string(types[protocol]));
        EXPECT_EQ(getenv("PROTOCOL"), std::to_string(protocol));
        EXPECT_STREQ(getenv("TTYNUM"), "1585");
        EXPECT_STREQ(getenv("CONN_TYPE"), "30");
    }
}

TEST_F(ChildTest, a_variable_that_cannot_be_set_is_logged_with_its_value)
{
    fault_row("vc_child_setenvs", "setenv", "ENOMEM", "nothing",
              "vc: setenvs(%d)=%s fail\n", "");
    vc_child child = {};
    child.ttyno = 300;
    fault::fail("setenv", 1, ENOMEM);
    vc_child_setenvs(&child);
    const auto texts = messages();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0].find("vc: setenvs("), 0u);
    EXPECT_NE(texts[0].find(")=300 fail\n"), std::string::npos);
}
