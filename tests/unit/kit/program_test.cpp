// What a program finds when it begins, and what its client reads when it
// cannot.
#include "kit/program.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/kit/keeper_fixture.h"

class KitProgram : public KeeperFixture
{
  protected:
    // The program ends with 127, and its client reads this.
    void expect_refusal(const std::string &text)
    {
        const std::string read = all();
        EXPECT_NE(read.find("ttyline: " + text + "\r"), std::string::npos)
            << read;
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(number_of(BELL_ENDED), 127 << 8);
    }

    // The program ends well, and has printed this.
    void expect_output(const std::string &text)
    {
        EXPECT_EQ(all(), text);
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(number_of(BELL_ENDED), 0);
    }
};

TEST_F(KitProgram, terminal_that_cannot_be_had_is_named)
{
    fault_row("kit_program_run", "open", "EIO",
              "the client reads why, the program ends with 127", "", "");
    fault_row("kit_program_run", "setsid", "EPERM",
              "the client reads why, the program ends with 127", "", "");
    fault_row("kit_program_run", "ioctl", "EPERM",
              "the client reads why, the program ends with 127", "", "");
    begin([] {
        fault::fail("open", 1, EIO, 1, fault::only_path("/dev/pts/"));
    });
    expect_refusal(device + ": Input/output error");
    // The terminal is its session's leader's to take.
    begin([] {
        fault::fail("setsid", 1, EPERM);
    });
    expect_refusal(device + ": Operation not permitted");
    begin([] {
        fault::fail("ioctl", 1, EPERM, 1, fault::only_what(TIOCSCTTY));
    });
    expect_refusal(device + ": Operation not permitted");
}

static void wait_for_its_end()
{
    siginfo_t ended = {};

    waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT);
}

// Its keeper may still be busy with the line.
TEST_F(KitProgram, program_that_ends_before_it_is_let_go_says_why)
{
    fault_row("kit_program_run", "setsid", "EPERM",
              "the client reads why, the program ends with 127", "", "");
    begin([] {
        fault::fail("setsid", 1, EPERM);
        fault::run("open", 1, wait_for_its_end, 1, fault::only_path(".lock"));
    });
    expect_refusal(device + ": Operation not permitted");
}

TEST_F(KitProgram, wait_for_the_line_that_is_interrupted_goes_on)
{
    fault_row("kit_program_run", "recv", "EINTR", "nothing", "",
              "the program runs");
    begin([] {
        fault::fail("recv", 1, EINTR, 3);
    });
    expect_output("up\r\n");
}

TEST_F(KitProgram, program_that_does_not_hear_of_its_line_never_runs)
{
    fault_row("kit_program_run", "recv", "EIO", "the program ends with 127", "",
              "");
    begin([] {
        fault::fail("recv", 1, EIO);
    });
    EXPECT_EQ(all(), "");
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(number_of(BELL_ENDED), 127 << 8);
}

// It runs as its user with all that belongs to him, or not at all.
TEST_F(KitProgram, program_that_cannot_become_its_user_does_not_run)
{
    for (const char *call :
         {"fchown", "fchmod", "initgroups", "setgid", "setuid"}) {
        fault_row("kit_program_run", call, "EPERM",
                  "the client reads why, the program ends with 127", "", "");
    }
    const std::string own = getpwuid(geteuid())->pw_name;
    service.user = own.c_str();
    for (const char *call :
         {"fchown", "fchmod", "initgroups", "setgid", "setuid"}) {
        begin([call] {
            // The mode of the line's files is the keeper's affair.
            fault::fail(call, 1, EPERM, 1,
                        strcmp(call, "fchmod") == 0
                            ? fault::only_path("/dev/pts/")
                            : fault::filter{});
        });
        expect_refusal(own + ": Operation not permitted");
    }
}

TEST_F(KitProgram, user_that_is_not_known_is_named)
{
    fault_row("kit_program_run", "getpwnam", "EIO",
              "the client reads why, the program ends with 127", "", "");
    const std::string own = getpwuid(geteuid())->pw_name;
    service.user = own.c_str();
    begin([] {
        fault::fail("getpwnam", 1, EIO, fault::ALWAYS);
    });
    expect_refusal(own + ": no such user");
    EXPECT_EQ(text_of(BELL_USER), "");
}

TEST_F(KitProgram, terminal_is_its_users_and_the_group_ttys_if_there_is_one)
{
    fault_row("kit_program_run", "getgrnam", "EIO", "nothing", "",
              "the terminal belongs to the group of its user");
    if (getuid() != 0) {
        GTEST_SKIP() << "only root gives a terminal away";
    }
    const group *tty = getgrnam("tty");
    ASSERT_NE(tty, nullptr);
    const std::string group = std::to_string(tty->gr_gid);
    service.user = "nobody";
    const passwd *user = getpwnam("nobody");
    ASSERT_NE(user, nullptr);
    const std::string own = std::to_string(user->pw_gid);
    run("stat -c %g:%a $(tty)");
    begin();
    expect_output(group + ":620\r\n");
    begin([] {
        fault::fail("getgrnam", 1, EIO);
    });
    expect_output(own + ":620\r\n");
}

TEST_F(KitProgram, daemons_user_need_not_be_known)
{
    fault_row("kit_program_run", "getpwuid", "EIO", "nothing", "",
              "the program runs in / without USER, LOGNAME, HOME and SHELL");
    run("echo \"[$USER$LOGNAME$HOME$SHELL]\"; pwd");
    begin([] {
        fault::fail("getpwuid", 1, EIO, fault::ALWAYS);
    });
    expect_output("[]\r\n/\r\n");
    EXPECT_EQ(text_of(BELL_USER), "");
}

static struct passwd *user_without_a_shell(uid_t)
{
    static char name[] = "somebody";
    static char shell[] = "";
    static char home[] = "/nowhere/at/all";
    static struct passwd user = {};

    user.pw_name = name;
    user.pw_shell = shell;
    user.pw_dir = home;
    return &user;
}

TEST_F(KitProgram, user_without_shell_and_directory_has_the_usual_ones)
{
    run("echo \"$USER $SHELL\"; pwd");
    begin([] {
        REPLACE_CALL(getpwuid, user_without_a_shell);
    });
    expect_output("somebody /bin/sh\r\n/\r\n");
}

TEST_F(KitProgram, directory_that_cannot_be_entered_is_the_root)
{
    fault_row("kit_program_run", "chdir", "EACCES", "nothing", "",
              "the program runs in /");
    service.directory = "/tmp";
    run("pwd");
    begin();
    expect_output("/tmp\r\n");
    begin([] {
        fault::fail("chdir", 1, EACCES);
    });
    expect_output("/\r\n");
}

TEST_F(KitProgram, variable_that_cannot_be_set_is_missing)
{
    fault_row("kit_program_run", "setenv", "ENOMEM", "nothing", "",
              "the program runs without this variable");
    fault_row("kit_program_run", "putenv", "ENOMEM", "nothing", "",
              "the program runs without this variable");
    const char *environment[] = {"MINE=1", nullptr};
    service.environment = environment;
    run("echo \"[$TERM$MINE]\"");
    begin();
    expect_output("[vt1001]\r\n");
    begin([] {
        fault::fail("setenv", 1, ENOMEM, 1, fault::only_path("TERM"));
        fault::fail("putenv", 1, ENOMEM);
    });
    expect_output("[]\r\n");
}

TEST_F(KitProgram, program_that_cannot_be_executed_is_named)
{
    fault_row("kit_program_run", "execvp", "EACCES",
              "the client reads why, the program ends with 127", "", "");
    fault_row("kit_program_run", "calloc", "ENOMEM",
              "the client reads why, the program ends with 127", "", "");
    begin([] {
        fault::fail("execvp", 1, EACCES);
    });
    expect_refusal("/bin/sh: Permission denied");
    begin([] {
        // Behind all that is done for the line.
        fault::run("chdir", 1, [] {
            fault::fail("calloc", 1, ENOMEM);
        });
    });
    expect_refusal("/bin/sh: out of memory");
}

TEST_F(KitProgram, program_has_the_limit_that_the_daemon_was_started_with)
{
    run("ulimit -n");
    begin([] {
        rlimit limit = {99, 199};
        setrlimit(RLIMIT_NOFILE, &limit);
        kit_program_keep_limits();
        limit.rlim_cur = 199;
        setrlimit(RLIMIT_NOFILE, &limit);
    });
    expect_output("99\r\n");
}

// ---- The terminal before the first byte. ----

class KitProgramTerminal : public testing::Test
{
  protected:
    // On descriptor 0 of a process of its own.
    static bool on_a_terminal(bool (*holds)())
    {
        return support::in_child([holds] {
                   const int master = posix_openpt(O_RDWR | O_NOCTTY);
                   grantpt(master);
                   unlockpt(master);
                   const int fd = open(ptsname(master), O_RDWR | O_NOCTTY);
                   dup2(fd, 0);
                   termios raw;
                   tcgetattr(0, &raw);
                   cfmakeraw(&raw);
                   tcsetattr(0, TCSANOW, &raw);
                   return holds();
               }) == 0;
    }

    static bool edits_lines()
    {
        termios modes;
        return tcgetattr(0, &modes) == 0 && (modes.c_lflag & ICANON) != 0;
    }

    static bool has_size(unsigned rows, unsigned columns)
    {
        winsize size = {};
        return ioctl(0, TIOCGWINSZ, &size) == 0 && size.ws_row == rows &&
               size.ws_col == columns;
    }
};

TEST_F(KitProgramTerminal, has_line_editing_and_a_size)
{
    EXPECT_TRUE(on_a_terminal([] {
        kit_program_make_terminal_sane();
        return edits_lines() && has_size(24, 80);
    }));
}

TEST_F(KitProgramTerminal, keeps_the_size_that_it_has)
{
    for (const bool rows : {true, false}) {
        static bool with_rows;
        with_rows = rows;
        EXPECT_TRUE(on_a_terminal([] {
            winsize size = {};
            (with_rows ? size.ws_row : size.ws_col) = 7;
            ioctl(0, TIOCSWINSZ, &size);
            kit_program_make_terminal_sane();
            return has_size(size.ws_row, size.ws_col);
        }));
    }
}

TEST_F(KitProgramTerminal, stays_as_it_is_when_it_cannot_be_asked_or_told)
{
    fault_row("kit_program_make_terminal_sane", "tcgetattr", "EIO", "nothing",
              "", "the terminal as it was");
    fault_row("kit_program_make_terminal_sane", "tcsetattr", "EIO", "nothing",
              "", "the terminal as it was");
    fault_row("kit_program_make_terminal_sane", "ioctl", "EIO", "nothing", "",
              "the terminal without a size");
    EXPECT_TRUE(on_a_terminal([] {
        fault::fail("tcgetattr", 1, EIO);
        kit_program_make_terminal_sane();
        return !edits_lines() && has_size(24, 80);
    }));
    EXPECT_TRUE(on_a_terminal([] {
        fault::fail("tcsetattr", 1, EIO);
        kit_program_make_terminal_sane();
        return !edits_lines() && has_size(24, 80);
    }));
    EXPECT_TRUE(on_a_terminal([] {
        fault::fail("ioctl", 1, EIO, 1, fault::only_what(TIOCGWINSZ));
        kit_program_make_terminal_sane();
        return edits_lines() && has_size(0, 0);
    }));
}
