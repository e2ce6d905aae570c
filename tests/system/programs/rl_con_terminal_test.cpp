// The line console and its terminal: the shell, interrupts, modes, the end.
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/system/programs/rl_con_run.h"

TEST_F(RlCon, runs_a_shell_in_the_foreground_and_comes_back)
{
    start();
    const termios before = terminal.modes_now();
    const pid_t shell = enter_shell();
    EXPECT_EQ(getpgid(shell), shell);
    EXPECT_EQ(getsid(shell), console->pid());
    EXPECT_EQ(terminal.foreground(), shell);

    terminal.type("stty raw -echo -isig; exit\n");
    terminal.expect(PROMPT);
    const termios after = terminal.modes_now();
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_oflag, before.c_oflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(terminal.foreground(), console->pid());
    EXPECT_EQ(answer("get LOGNAME"), "LOGNAME is not stored\r\n");
}

TEST_F(RlCon, gives_the_shell_a_clean_process)
{
    start();
    // Storing sets the file-creation mask to 0.
    EXPECT_EQ(answer("set LOGNAME bob"), "stored\r\n");
    const pid_t shell = enter_shell();
    terminal.type("umask\n");
    terminal.expect("0022\r\n");
    for (const pid_t pid : {console->pid(), shell}) {
        const std::string name = "/proc/" + std::to_string(pid) + "/fd/20";
        EXPECT_FALSE(
            std::filesystem::exists(std::filesystem::symlink_status(name)));
    }
    std::ifstream status("/proc/" + std::to_string(shell) + "/status");
    std::stringstream text;
    text << status.rdbuf();
    EXPECT_NE(text.str().find("SigBlk:\t0000000000000000"), std::string::npos)
        << text.str();
    // Without those that the shell itself ignores on a terminal.
    EXPECT_EQ(text.str().find("SigIgn:\t0000000000001"), std::string::npos)
        << text.str();
}

TEST_F(RlCon, keeps_what_is_typed_ahead_for_the_shell)
{
    start();
    terminal.type("shell\necho ahead-$((40+2))\nexit\nget LOGNAME\n");
    terminal.expect("ahead-42\r\n");
    terminal.expect("LOGNAME is not stored\r\n");
}

TEST_F(RlCon, lets_ctrl_c_in_the_shell_end_the_shells_job_only)
{
    start();
    const pid_t shell = enter_shell();
    terminal.type("sleep 1000\n");
    const pid_t job = next_foreground(shell);
    terminal.type("\x03");
    EXPECT_TRUE(eventually([&] {
        return !process_runs(job);
    }));
    EXPECT_TRUE(eventually([&] {
        return terminal.foreground() == shell;
    }));
    terminal.type("echo still-$((40+2)); exit\n");
    terminal.expect("still-42\r\n");
    terminal.expect(PROMPT);
}

TEST_F(RlCon, continues_a_shell_that_was_stopped)
{
    start();
    const pid_t shell = enter_shell();
    kill(shell, SIGSTOP);
    terminal.type("echo again-$((40+2))\nexit\n");
    terminal.expect("again-42\r\n");
    terminal.expect(PROMPT);
}

TEST_F(RlCon, comes_back_from_a_shell_that_was_killed)
{
    start();
    const pid_t shell = enter_shell();
    kill(shell, SIGKILL);
    terminal.expect(PROMPT);
    EXPECT_EQ(terminal.foreground(), console->pid());
}

TEST_F(RlCon, says_when_the_shell_cannot_be_run)
{
    setenv("SHELL", "/nonexistent/sh", 1);
    start();
    const std::string text = answer("shell");
    EXPECT_NE(text.find("cannot run /nonexistent/sh: No such file"),
              std::string::npos)
        << text;
    EXPECT_EQ(answer("get LOGNAME"), "LOGNAME is not stored\r\n");
}

TEST_F(RlCon, drops_the_line_that_is_interrupted)
{
    start();
    terminal.type("set LOGNAME bo");
    terminal.expect("set LOGNAME bo");
    terminal.type("\x03");
    terminal.expect(PROMPT);
    EXPECT_EQ(answer("get LOGNAME"), "LOGNAME is not stored\r\n");
    terminal.type("\x1c");
    terminal.expect(PROMPT);
    EXPECT_EQ(answer("get LOGNAME"), "LOGNAME is not stored\r\n");
}

TEST_F(RlCon, survives_interruptions_at_any_moment)
{
    start();
    for (int i = 0; i < 200; i++) {
        terminal.type("get LOGNAME\n\x03");
    }
    // Nothing of what was thrown away may stick to it.
    terminal.type("frob\n");
    terminal.expect("unknown command: frob");
    terminal.type("exit\n");
    EXPECT_EQ(console->exit_code(), 0);
}

TEST_F(RlCon, ends_when_the_line_is_hung_up)
{
    start();
    terminal.hang_up();
    const int status = console->wait();
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGHUP);
}

TEST_F(RlCon, ends_the_shell_when_the_line_is_hung_up)
{
    start();
    const pid_t shell = enter_shell();
    terminal.type("sleep 1000\n");
    const pid_t job = next_foreground(shell);
    terminal.hang_up();
    EXPECT_NE(console->wait(), -1);
    EXPECT_TRUE(eventually([&] {
        return !process_runs(shell) && !process_runs(job);
    }));
}

TEST_F(RlCon, ends_the_shell_when_it_is_killed_itself)
{
    start();
    const pid_t shell = enter_shell();
    kill(console->pid(), SIGKILL);
    EXPECT_NE(console->wait(), -1);
    EXPECT_TRUE(eventually([&] {
        return !process_runs(shell);
    }));
}

TEST_F(RlCon, puts_the_modes_back_at_its_end)
{
    const termios before = terminal.modes_now();
    start();
    EXPECT_NE(terminal.modes_now().c_lflag, before.c_lflag);
    terminal.type("exit\n");
    EXPECT_EQ(console->exit_code(), 0);
    const termios after = terminal.modes_now();
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_oflag, before.c_oflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
}

TEST_F(RlCon, ends_at_the_end_of_the_input)
{
    start();
    terminal.type("\x04");
    EXPECT_EQ(console->exit_code(), 0);
}

TEST_F(RlCon, reads_what_was_typed_before_it_started)
{
    terminal.type("set LOGNAME early\rset SPEED 9600\r\nget LOGNAME\r");
    launch();
    terminal.expect("early\r\n");
    terminal.expect(PROMPT);
    EXPECT_TRUE(stored("LOGNAME=early\r\n")) << info_file();
    EXPECT_TRUE(stored("SPEED=9600\r\n")) << info_file();
    EXPECT_EQ(answer("get SPEED"), "9600\r\n");
}

TEST_F(RlCon, keeps_the_size_of_a_terminal_that_has_one)
{
    winsize size = {};
    size.ws_row = 50;
    size.ws_col = 132;
    ASSERT_EQ(ioctl(terminal.slave(), TIOCSWINSZ, &size), 0);
    start();
    ASSERT_EQ(ioctl(terminal.slave(), TIOCGWINSZ, &size), 0);
    EXPECT_EQ(size.ws_row, 50);
    EXPECT_EQ(size.ws_col, 132);
}

TEST_F(RlCon, keeps_the_users_umask_and_terminal_type_by_hand)
{
    setenv("TERM", "xterm", 1);
    console = std::make_unique<Program>(RL_CON_PATH, AS_STARTED, [&] {
        hand_over(terminal.slave());
        umask(077);
    });
    terminal.expect(PROMPT);
    enter_shell();
    terminal.type("umask; echo $TERM\n");
    terminal.expect("0077\r\n");
    terminal.expect("xterm\r\n");
}

TEST_F(RlCon, works_as_a_job_of_a_users_shell)
{
    console = std::make_unique<Program>("/bin/sh",
                                        std::vector<std::string>{"-i"}, [&] {
                                            hand_over(terminal.slave());
                                            setenv("PS1", "user> ", 1);
                                        });
    termios usual = terminal.modes_now();
    usual.c_iflag |= ICRNL;
    usual.c_lflag |= ICANON | ECHO;
    terminal.set_modes(usual);
    terminal.expect("user> ");
    const pid_t users_shell = console->pid();
    terminal.type(std::string(RL_CON_PATH) + " -n 300\n");
    terminal.expect(PROMPT);
    const pid_t job = terminal.foreground();
    EXPECT_NE(job, users_shell);

    terminal.type("shell\n");
    const pid_t shell = next_foreground(job);
    terminal.type("echo shell-$((40+2)); exit\n");
    terminal.expect("shell-42\r\n");
    terminal.expect(PROMPT);
    EXPECT_NE(shell, job);
    EXPECT_EQ(terminal.foreground(), job);
    terminal.type("\x1a");
    terminal.expect("user> ");
    EXPECT_EQ(terminal.foreground(), users_shell);
    terminal.type("fg\n");
    EXPECT_TRUE(eventually([&] {
        return terminal.foreground() == job;
    }));
    EXPECT_EQ(answer("get LOGNAME"), "LOGNAME is not stored\r\n");
    terminal.type("exit\n");
    terminal.expect("user> ");
    EXPECT_EQ(terminal.modes_now().c_lflag, usual.c_lflag);
}
