#include "programs/rl-con/child.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include <ttyline/vc.h>

namespace
{

/*
 * Runs work in a child of its own, as it changes the process for good. Gives
 * the wait status; what the child prints goes to output.
 */
int in_child(const std::function<int()> &work, std::string *output = nullptr)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    pid_t child = fork();
    if (child == 0) {
        alarm(20);
        dup2(ends[1], 1);
        dup2(ends[1], 2);
        _exit(work());
    }
    close(ends[1]);
    std::string text;
    char piece[4096];
    for (ssize_t n; (n = read(ends[0], piece, sizeof piece)) > 0;) {
        text.append(piece, size_t(n));
    }
    close(ends[0]);
    if (output != nullptr) {
        *output = text;
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

bool succeeded(int status)
{
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

[[noreturn]] void run_shell(const char *script)
{
    execl("/bin/sh", "sh", "-c", script, static_cast<char *>(nullptr));
    _exit(126);
}

TEST(SessionChild, environment_holds_only_what_is_kept)
{
    std::string output;
    int status = in_child(
        [] {
            clearenv();
            for (const char *name :
                 {"HOME", "SHELL", "USER", "LOGNAME", "LANG", "TMPDIR",
                  "TTYNUM", "TTYTYPE", "PROTOCOL", "CONN_TYPE", "LD_PRELOAD",
                  "IFS", "ENV", "SECRET"}) {
                setenv(name, "value", 1);
            }
            setenv("PATH", "/some/path", 1);
            setenv("TERM", "fancy", 1);
            clean_environment("vt220");
            for (char **entry = environ; *entry != nullptr; entry++) {
                dprintf(1, "%s\n", *entry);
            }
            return 0;
        },
        &output);
    EXPECT_TRUE(succeeded(status));
    EXPECT_EQ("PATH=/some/path\nHOME=value\nSHELL=value\nUSER=value\n"
              "LOGNAME=value\nLANG=value\nTMPDIR=value\nTTYNUM=value\n"
              "TTYTYPE=value\nPROTOCOL=value\nCONN_TYPE=value\nTERM=vt220\n",
              output);
}

TEST(SessionChild, environment_gets_a_path_and_nothing_unset_becomes_set)
{
    std::string output;
    in_child(
        [] {
            clearenv();
            clean_environment("vt100");
            for (char **entry = environ; *entry != nullptr; entry++) {
                dprintf(1, "%s\n", *entry);
            }
            return 0;
        },
        &output);
    EXPECT_EQ("PATH=/usr/local/bin:/usr/bin:/bin\nTERM=vt100\n", output);
}

int count_open(int lowest)
{
    int open_count = 0;
    for (int fd = lowest; fd < 1024; fd++) {
        open_count += fcntl(fd, F_GETFD) != -1;
    }
    return open_count;
}

int check_closing(void (*close_from)(int))
{
    for (int fd : {3, 4, 17, 100, 101, 512, 1000}) {
        if (dup2(1, fd) != fd) {
            return 1;
        }
    }
    if (count_open(3) < 7) {
        return 2;
    }
    close_from(3);
    return count_open(3) == 0 && count_open(0) == 3 ? 0 : 3;
}

TEST(SessionChild, closes_every_descriptor_above_two)
{
    EXPECT_TRUE(succeeded(in_child([] {
        return check_closing(close_descriptors_from);
    })));
}

TEST(SessionChild, closes_them_without_the_kernels_call_too)
{
    EXPECT_TRUE(succeeded(in_child([] {
        return check_closing(close_listed_descriptors);
    })));
}

void ignore_and_block()
{
    sigset_t all;
    for (int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM, SIGCHLD}) {
        signal(number, SIG_IGN);
    }
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    umask(0);
}

TEST(SessionChild, program_dies_of_signals_that_the_daemon_ignored)
{
    for (const char *name : {"HUP", "INT", "QUIT", "PIPE", "TERM"}) {
        int status = in_child([name] {
            ignore_and_block();
            prepare_session_child("vt100");
            run_shell((std::string("kill -") + name + " $$").c_str());
            return 0;
        });
        EXPECT_TRUE(WIFSIGNALED(status)) << name;
    }
}

TEST(SessionChild, program_starts_unblocked_with_umask022_and_three_descriptors)
{
    std::string output;
    int status = in_child(
        [] {
            ignore_and_block();
            dup2(1, 77);
            prepare_session_child("vt100");
            run_shell("umask; echo $TERM; grep -E 'Sig(Blk|Ign)' "
                      "/proc/self/status; test ! -e /proc/self/fd/77");
            return 0;
        },
        &output);
    EXPECT_TRUE(succeeded(status));
    EXPECT_EQ("0022\nvt100\nSigBlk:\t0000000000000000\n"
              "SigIgn:\t0000000000000000\n",
              output);
}

TEST(SessionTerminal, gets_the_modes_of_an_ordinary_shell)
{
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    int slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(slave, 0);
    termios modes;
    ASSERT_EQ(0, tcgetattr(slave, &modes));
    cfmakeraw(&modes);
    modes.c_iflag |= IXOFF | IXANY | INLCR;
    ASSERT_EQ(0, tcsetattr(slave, TCSANOW, &modes));

    make_terminal_sane(slave);
    ASSERT_EQ(0, tcgetattr(slave, &modes));
    tcflag_t local = ICANON | ECHO | ISIG | IEXTEN;
    EXPECT_EQ(local, modes.c_lflag & local);
    EXPECT_EQ(tcflag_t(ICRNL),
              modes.c_iflag & (ICRNL | INLCR | IGNCR | IXOFF | IXANY));
    EXPECT_EQ(tcflag_t(OPOST | ONLCR), modes.c_oflag & (OPOST | ONLCR));
    winsize size = {};
    ASSERT_EQ(0, ioctl(slave, TIOCGWINSZ, &size));
    EXPECT_EQ(24, size.ws_row);
    EXPECT_EQ(80, size.ws_col);
    close(slave);
    close(master);
}

TEST(UserShell, comes_from_the_environment_else_from_the_password_file)
{
    auto shell_with = [](const char *value) {
        std::string output;
        in_child(
            [value] {
                value != nullptr ? setenv("SHELL", value, 1)
                                 : unsetenv("SHELL");
                dprintf(1, "%s", user_shell().c_str());
                return 0;
            },
            &output);
        return output;
    };
    const passwd *user = getpwuid(getuid());
    bool listed = user != nullptr && *user->pw_shell != '\0';
    std::string expected = listed ? user->pw_shell : "/bin/sh";
    EXPECT_EQ("/opt/shell", shell_with("/opt/shell"));
    EXPECT_EQ(expected, shell_with(""));
    EXPECT_EQ(expected, shell_with(nullptr));
}

} // namespace
