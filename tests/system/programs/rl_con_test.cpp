// The line console on a terminal that the test opens.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <ttyline/tty.h>

#include "tests/system/support/daemon.h"
#include "tests/system/support/program.h"

using Clock = std::chrono::steady_clock;

static const char PROMPT[] = "rl-con 300> ";
static const std::vector<std::string> AS_STARTED = {"-n 300", "-t /dev/pts/4",
                                                    "-i ins"};

// A pseudo-terminal with the modes in which the session service hands it over.
class Terminal
{
  public:
    Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        grantpt(master_);
        unlockpt(master_);
        slave_ = open(ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios modes = modes_now();
        modes.c_iflag &= ~tcflag_t{ICRNL | INLCR};
        modes.c_lflag &= ~tcflag_t{ICANON | ECHO | ECHOE | ECHOK};
        set_modes(modes);
    }
    ~Terminal()
    {
        hang_up();
        close(slave_);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    void hang_up()
    {
        if (master_ >= 0) {
            close(master_);
            master_ = -1;
        }
    }
    int slave() const
    {
        return slave_;
    }
    std::string device() const
    {
        return ptsname(master_);
    }
    termios modes_now() const
    {
        termios modes = {};
        EXPECT_EQ(tcgetattr(slave_, &modes), 0);
        return modes;
    }
    void set_modes(const termios &modes) const
    {
        EXPECT_EQ(tcsetattr(slave_, TCSANOW, &modes), 0);
    }
    pid_t foreground() const
    {
        return tcgetpgrp(master_);
    }
    void type(const std::string &text) const
    {
        EXPECT_EQ(write(master_, text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }
    // Reads until the text has come, which is taken away with all before it.
    std::string expect(const std::string &wanted)
    {
        const auto end = Clock::now() + std::chrono::milliseconds(DEADLINE_MS);
        size_t at;

        while ((at = seen_.find(wanted)) == std::string::npos) {
            struct pollfd one = {master_, POLLIN, 0};
            char bytes[4096];
            if (Clock::now() > end) {
                ADD_FAILURE() << "no " << wanted << " in: " << seen_;
                return "";
            }
            if (poll(&one, 1, 100) <= 0) {
                continue;
            }
            const ssize_t got = read(master_, bytes, sizeof bytes);
            if (got <= 0) {
                ADD_FAILURE() << "end before " << wanted << " in: " << seen_;
                return "";
            }
            seen_.append(bytes, static_cast<size_t>(got));
        }
        const std::string text = seen_.substr(0, at + wanted.size());
        seen_.erase(0, text.size());
        return text;
    }

  private:
    int master_;
    int slave_;
    std::string seen_;
};

class RlCon : public SystemTest
{
  protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        setenv("SHELL", "/bin/sh", 1);
        setenv("PS1", "", 1);
    }

    // It must not write into a runtime directory that is being removed.
    void TearDown() override
    {
        console.reset();
        SystemTest::TearDown();
    }

    // As the session service leaves the child that runs it.
    static void hand_over(int slave)
    {
        setsid();
        ioctl(slave, TIOCSCTTY, 0);
        for (int fd = 0; fd <= 2; fd++) {
            dup2(slave, fd);
        }
        fcntl(slave, F_DUPFD, 20);
        for (int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE}) {
            signal(number, SIG_IGN);
        }
        umask(0);
    }

    // Starts it without waiting for anything.
    void launch(const std::vector<std::string> &arguments = AS_STARTED)
    {
        console = std::make_unique<Program>(RL_CON_PATH, arguments, [&] {
            hand_over(terminal.slave());
        });
    }

    // Starts it; the greeting is what it says first.
    std::string start(const std::vector<std::string> &arguments = AS_STARTED)
    {
        launch(arguments);
        return terminal.expect(PROMPT);
    }

    // The answer to a command: between the echo and the next prompt.
    std::string answer(const std::string &command)
    {
        terminal.type(command + "\n");
        terminal.expect(command + "\r\n");
        std::string text = terminal.expect(PROMPT);
        text.resize(text.size() - std::min(text.size(), strlen(PROMPT)));
        return text;
    }

    std::string info_file() const
    {
        std::ifstream file(path("/mng/tty/.tty_info_300"), std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    bool stored(const std::string &text) const
    {
        return info_file().find(text) != std::string::npos;
    }

    // Waits until the foreground is neither the console's nor the one given.
    pid_t next_foreground(pid_t other = -1)
    {
        pid_t group = -1;
        EXPECT_TRUE(eventually([&] {
            group = terminal.foreground();
            return group > 0 && group != console->pid() && group != other;
        }));
        return group;
    }

    // Enters the shell; its process id, which is its group's.
    pid_t enter_shell()
    {
        terminal.type("shell\n");
        const pid_t shell = next_foreground();
        // The console's prompt may be on its way still: wait for an answer.
        terminal.type("echo shell-$((40+2))\n");
        terminal.expect("shell-42\r\n");
        return shell;
    }

    void prevent_storing()
    {
        // A directory where the new content would be written.
        std::filesystem::create_directories(
            path("/mng/tty/.tty_info_300.tmp/x"));
    }

    Terminal terminal;
    std::unique_ptr<Program> console;
};

TEST_F(RlCon, takes_option_and_value_in_one_argument)
{
    const std::string greeting = start();
    EXPECT_EQ(greeting.find("line 300 on /dev/pts/4, peer ins;"), 0u)
        << greeting;
}

TEST_F(RlCon, takes_an_unknown_peer)
{
    const std::string greeting = start({"-n 300", "-t /dev/pts/4"});
    EXPECT_EQ(greeting.find("line 300 on /dev/pts/4, peer unknown;"), 0u)
        << greeting;
}

TEST_F(RlCon, takes_separate_arguments)
{
    const std::string greeting =
        start({"-n", "300", "-t", "/dev/pts/4", "-i", "vty2(10.0.0.5)"});
    EXPECT_EQ(greeting.find("line 300 on /dev/pts/4, peer vty2(10.0.0.5);"), 0u)
        << greeting;
}

TEST_F(RlCon, takes_values_without_a_blank)
{
    const std::string greeting = start({"-n300", "-t/dev/pts/4", "-iins"});
    EXPECT_EQ(greeting.find("line 300 on /dev/pts/4, peer ins;"), 0u)
        << greeting;
}

TEST_F(RlCon, shows_its_own_terminal_when_no_device_is_given)
{
    const std::string greeting = start({"-n 300"});
    EXPECT_EQ(greeting.find("line 300 on " + terminal.device() + ","), 0u)
        << greeting;
}

TEST_F(RlCon, refuses_a_bad_command_line)
{
    const std::vector<std::vector<std::string>> bad = {
        {},        {"-n", "1586"},  {"-n", ""}, {"-n", "x"}, {"-n", "3x"},
        {"-n -1"}, {"-n 300", "x"}, {"-x"},     {"-n"}};
    for (const auto &arguments : bad) {
        int code = -1;
        const std::string text = output_of(RL_CON_PATH, arguments, "", &code);
        EXPECT_EQ(code, 2) << text;
        EXPECT_FALSE(text.empty());
    }
}

TEST_F(RlCon, documents_its_exit_codes)
{
    int code = -1;
    const std::string text = output_of(RL_CON_PATH, {"--help"}, "", &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("Exit codes: 0 "), std::string::npos) << text;
}

TEST_F(RlCon, shows_the_line_and_its_stored_keys)
{
    ASSERT_EQ(tty_setenv(300, "LOGNAME", "alice"), 0);
    ASSERT_EQ(tty_setenv(300, "EXECNUM", "7"), 0);
    ASSERT_EQ(tty_setenv(301, "PEERNAME", "other"), 0);
    start();
    EXPECT_EQ(answer("show"), "line    300\r\n"
                              "device  /dev/pts/4\r\n"
                              "peer    ins\r\n"
                              "LOGNAME=alice\r\n"
                              "EXECNUM=7\r\n");
}

TEST_F(RlCon, shows_a_line_that_has_no_keys)
{
    start();
    EXPECT_EQ(answer("show"), "line    300\r\n"
                              "device  /dev/pts/4\r\n"
                              "peer    ins\r\n"
                              "no stored keys\r\n");
}

TEST_F(RlCon, stores_a_value_with_its_blanks)
{
    start();
    EXPECT_EQ(answer("  set LOGNAME  bob  smith "), "stored\r\n");
    EXPECT_TRUE(stored("LOGNAME=bob  smith\r\n")) << info_file();
    EXPECT_EQ(answer("get LOGNAME"), "bob  smith\r\n");
}

TEST_F(RlCon, says_when_a_key_is_not_stored)
{
    start();
    EXPECT_EQ(answer("get LOGNAME"), "LOGNAME is not stored\r\n");
}

TEST_F(RlCon, refuses_unknown_keys)
{
    start();
    EXPECT_EQ(answer("get logname"), "no such key: logname\r\n");
    EXPECT_EQ(answer("set LOGNAMES x"), "no such key: LOGNAMES\r\n");
    EXPECT_EQ(info_file(), "");
}

TEST_F(RlCon, refuses_commands_with_too_few_or_too_many_words)
{
    start();
    EXPECT_EQ(answer("get"), "usage: get KEY\r\n");
    EXPECT_EQ(answer("get LOGNAME x"), "usage: get KEY\r\n");
    EXPECT_EQ(answer("set LOGNAME"), "usage: set KEY VALUE...\r\n");
    EXPECT_EQ(answer("login"), "usage: login NAME\r\n");
    EXPECT_EQ(answer("login a b"), "usage: login NAME\r\n");
    EXPECT_EQ(answer("show x"), "usage: show\r\n");
    EXPECT_EQ(answer("exit now"), "usage: exit\r\n");
    EXPECT_EQ(info_file(), "");
}

TEST_F(RlCon, refuses_unknown_commands_and_passes_over_empty_lines)
{
    start();
    EXPECT_EQ(answer(""), "");
    EXPECT_EQ(answer("  \t "), "");
    EXPECT_EQ(answer("frob 1"), "unknown command: frob (try help)\r\n");
    EXPECT_NE(answer("help").find("set   KEY VALUE..."), std::string::npos);
}

TEST_F(RlCon, stores_no_more_than_can_be_read_back)
{
    const std::string most(1020 - strlen("LOGNAME"), 'x');
    start();
    EXPECT_EQ(answer("set LOGNAME " + most), "stored\r\n");
    EXPECT_EQ(answer("get LOGNAME"), most + "\r\n");
    EXPECT_EQ(answer("set LOGNAME y" + most),
              "too long: name and value have room for 1020 bytes\r\n");
    EXPECT_TRUE(stored("LOGNAME=xxx"));
}

TEST_F(RlCon, escapes_control_characters_of_values)
{
    ASSERT_EQ(tty_setenv(300, "PEERNAME", "a\x1b[2J\\b\xc3\xa4\x7f"), 0);
    start();
    EXPECT_EQ(answer("get PEERNAME"), "a\\x1b[2J\\\\b\\xc3\\xa4\\x7f\r\n");
    EXPECT_NE(answer("show").find("PEERNAME=a\\x1b[2J"), std::string::npos);
}

TEST_F(RlCon, escapes_control_characters_of_its_arguments)
{
    const std::string greeting = start({"-n 300", "-t a\x1b", "-i b\x9b"});
    EXPECT_EQ(greeting.find("line 300 on a\\x1b, peer b\\x9b;"), 0u)
        << greeting;
}

TEST_F(RlCon, resets_the_keys_of_a_session)
{
    ASSERT_EQ(tty_setenv(300, "LOGNAME", "alice"), 0);
    ASSERT_EQ(tty_setenv(300, "EXECNUM", "7"), 0);
    start();
    EXPECT_EQ(answer("reset"), "reset\r\n");
    EXPECT_EQ(answer("get LOGNAME"), "LOGNAME is not stored\r\n");
    EXPECT_TRUE(stored("TTYPID=-1\r\n")) << info_file();
    EXPECT_TRUE(stored("EXECNUM=7\r\n")) << info_file();
}

TEST_F(RlCon, says_when_nothing_can_be_stored)
{
    prevent_storing();
    start();
    EXPECT_EQ(answer("set LOGNAME bob"), "cannot store LOGNAME\r\n");
    EXPECT_EQ(answer("login bob"), "cannot store LOGNAME\r\n");
    EXPECT_EQ(answer("reset"), "cannot reset all keys\r\n");
}

// The line administration daemon's end.
class Administration
{
  public:
    explicit Administration(const std::string &name)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), name_(name)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, name.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&address),
                       sizeof address),
                  0);
        EXPECT_EQ(listen(fd_, 4), 0);
    }
    ~Administration()
    {
        go();
    }
    Administration(const Administration &) = delete;
    Administration &operator=(const Administration &) = delete;

    bool was_told()
    {
        struct pollfd one = {fd_, POLLIN, 0};
        char bytes[256];

        if (poll(&one, 1, DEADLINE_MS) <= 0) {
            return false;
        }
        client_ = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        one.fd = client_;
        return poll(&one, 1, DEADLINE_MS) > 0 &&
               read(client_, bytes, sizeof bytes) > 0;
    }
    void go()
    {
        for (int *fd : {&client_, &fd_}) {
            if (*fd >= 0) {
                close(*fd);
                *fd = -1;
            }
        }
        unlink(name_.c_str());
    }

  private:
    int fd_;
    int client_ = -1;
    std::string name_;
};

TEST_F(RlCon, reports_a_login)
{
    ASSERT_EQ(tty_setenv(300, "EXECNUM", "7"), 0);
    Administration administration(path("/mng/tty/.tty_rl"));
    start();
    EXPECT_EQ(answer("login alice"), "logged in\r\n");
    EXPECT_TRUE(administration.was_told());
    EXPECT_TRUE(stored("LOGNAME=alice\r\n")) << info_file();
    EXPECT_TRUE(stored("LOGSUCC=1\r\n")) << info_file();
}

TEST_F(RlCon, survives_a_line_administration_that_has_gone)
{
    ASSERT_EQ(tty_setenv(300, "EXECNUM", "7"), 0);
    Administration administration(path("/mng/tty/.tty_rl"));
    start();
    EXPECT_EQ(answer("login alice"), "logged in\r\n");
    EXPECT_TRUE(administration.was_told());
    administration.go();
    const std::string not_told =
        "LOGNAME is stored, the login could not be reported\r\n";
    EXPECT_EQ(answer("login bob"), not_told);
    EXPECT_EQ(answer("get LOGNAME"), "bob\r\n");
}

TEST_F(RlCon, says_when_nobody_is_there_to_hear_of_a_login)
{
    start();
    EXPECT_EQ(answer("login alice"),
              "LOGNAME is stored, the login could not be reported\r\n");
    EXPECT_TRUE(stored("LOGNAME=alice\r\n")) << info_file();
}

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

TEST_F(RlCon, works_without_a_terminal)
{
    int code = -1;
    const std::string text = output_of(RL_CON_PATH, AS_STARTED,
                                       "set LOGNAME bob\nget LOGNAME\nshell\n"
                                       "echo shell-$((40+2))\nexit\n",
                                       &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("stored\n"), std::string::npos) << text;
    EXPECT_NE(text.find("rl-con 300> bob\n"), std::string::npos) << text;
    EXPECT_NE(text.find("shell-42\n"), std::string::npos) << text;
}

TEST_F(RlCon, takes_a_last_line_without_its_end)
{
    int code = -1;
    const std::string text =
        output_of(RL_CON_PATH, AS_STARTED, "get LOGNAME", &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("LOGNAME is not stored\n"), std::string::npos) << text;
}

TEST_F(RlCon, refuses_a_line_that_is_too_long_and_goes_on)
{
    int code = -1;
    const std::string text = output_of(
        RL_CON_PATH, AS_STARTED,
        "set LOGNAME " + std::string(20000, 'x') + "\nget LOGNAME\n", &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("line too long\n"), std::string::npos) << text;
    EXPECT_NE(text.find("LOGNAME is not stored\n"), std::string::npos) << text;
}

TEST_F(RlCon, refuses_zero_bytes)
{
    using namespace std::string_literals;
    int code = -1;
    const std::string text =
        output_of(RL_CON_PATH, AS_STARTED,
                  "set LOGNAME a\0b\nget LOGNAME\0\nsho\0w\n"s, &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("a value cannot hold a zero byte\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("no such key: LOGNAME\\x00\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("unknown command: sho\\x00w "), std::string::npos)
        << text;
    EXPECT_EQ(info_file(), "");
}

TEST_F(RlCon, ends_when_its_output_cannot_be_written)
{
    Program program(RL_CON_PATH, AS_STARTED, [] {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(open("/dev/full", O_WRONLY), 1);
    });
    EXPECT_EQ(program.exit_code(), 1);
}

TEST_F(RlCon, ends_when_its_input_cannot_be_read)
{
    Program program(RL_CON_PATH, AS_STARTED, [] {
        dup2(open("/", O_RDONLY), 0);
        dup2(open("/dev/null", O_WRONLY), 1);
        dup2(1, 2);
    });
    EXPECT_EQ(program.exit_code(), 1);
}
