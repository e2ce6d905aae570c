#include "vc/spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/child.h"
#include "vc/pty.h"
#include "vc/service.h"
#include "vc/session.h"
#include "vc/teardown.h"

static std::string number(int value)
{
    return std::to_string(value);
}

static bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

class SpawnTest : public VcTest
{
  protected:
    void SetUp() override
    {
        VcTest::SetUp();
        add(plain(AF_INET, 23, nullptr, 6));
        // The tests wait for the children themselves, and the handler would
        // log at any moment.
        signal(SIGCHLD, SIG_DFL);
        messages();
    }

    void TearDown() override
    {
        fault::reset();
        for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
            if (vc_child_at(ttyno) != nullptr) {
                vc_child_kill(vc_child_at(ttyno));
            }
        }
        while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
        }
        VcTest::TearDown();
    }

    static int connection()
    {
        int ends[2] = {-1, -1};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        close(ends[1]);
        return ends[0];
    }

    // A line that fails after its record exists: what follows is always the
    // same.
    void expect_teardown(int ttyno, const std::string &reason)
    {
        int sockfd = connection();
        const int given = sockfd;
        messages();
        EXPECT_EQ(vc_child_alloc(ttyno, &sockfd, 23, "", inetd_fd_), nullptr);
        fault::reset();
        EXPECT_EQ(sockfd, -1);
        EXPECT_FALSE(is_open(given));
        EXPECT_EQ(vc_child_at(ttyno), nullptr);
        const auto records = sent();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].vc_flag, 0x002u);
        EXPECT_EQ(records[0].ttyno, ttyno);
        const auto texts = messages();
        ASSERT_GE(texts.size(), 3u);
        EXPECT_EQ(texts[0].find(reason), 0u) << texts[0];
        EXPECT_EQ(
            texts[1].find("vc: kill proc, sockfd=" + number(given) + ", line="),
            0u)
            << texts[1];
        EXPECT_EQ(texts[2], "vc: kill client " + number(ttyno) + "\n");
    }

    // A line that fails before its record exists: the socket is the caller's.
    void expect_refusal(int ttyno, const std::string &reason)
    {
        int sockfd = connection();
        const int given = sockfd;
        messages();
        const vc_child *before = vc_child_at(ttyno);
        EXPECT_EQ(vc_child_alloc(ttyno, &sockfd, 23, "", inetd_fd_), nullptr);
        fault::reset();
        EXPECT_EQ(sockfd, given);
        EXPECT_TRUE(is_open(given));
        EXPECT_EQ(vc_child_at(ttyno), before);
        EXPECT_TRUE(sent().empty());
        EXPECT_EQ(messages(), (std::vector<std::string>{reason}));
        close(given);
    }

    vc_child *start(int ttyno)
    {
        int sockfd = connection();
        return vc_child_alloc(ttyno, &sockfd, 23, "", inetd_fd_);
    }
};

TEST_F(SpawnTest, lines_without_sessions_are_refused)
{
    for (const int ttyno : {0, 257, 1149, 1420}) {
        expect_refusal(ttyno,
                       "vc: pty numbers " + number(ttyno) + " up to MAX\n");
    }
}

TEST_F(SpawnTest, the_first_and_last_lines_of_each_range_get_sessions)
{
    for (const int ttyno : {258, 321, 322, 1148, 1421, 1457, 1458, 1585}) {
        EXPECT_NE(start(ttyno), nullptr) << ttyno;
    }
}

TEST_F(SpawnTest, a_taken_line_is_refused_and_left_running)
{
    const vc_child *child = start(300);
    ASSERT_NE(child, nullptr);
    const int pid = vc_child_pid(child);
    expect_refusal(300, "vc: client 300 exist\n");
    EXPECT_EQ(vc_child_at(300), child);
    EXPECT_EQ(kill(pid, 0), 0);
    EXPECT_EQ(g_calls.kill, 0);
}

TEST_F(SpawnTest, without_memory_nothing_is_done)
{
    fault_row("vc_child_alloc", "calloc", "ENOMEM", "a null pointer",
              "vc: malloc fail, err:%s.\r\n", "the socket is the caller's");
    fault::fail("calloc", 1, ENOMEM);
    expect_refusal(300, std::string("vc: malloc fail, err:") +
                            strerror(ENOMEM) + ".\r\n");
}

TEST_F(SpawnTest, a_master_that_cannot_be_opened_is_named_dev_ptmx)
{
    fault_row("vc_child_alloc", "posix_openpt", "ENOSPC", "a null pointer",
              "vc: can't open master pty: %s, fdm %d, err:%s.\r\n",
              "the socket is the caller's");
    fault::fail("posix_openpt", 1, ENOSPC);
    expect_refusal(300, std::string("vc: can't open master pty: /dev/ptmx, fdm "
                                    "-1, err:") +
                            strerror(ENOSPC) + ".\r\n");
}

TEST_F(SpawnTest, each_step_of_the_master_has_its_number_and_errno)
{
    fault_row("vc_ptym_open", "grantpt", "EACCES", "-2 and the errno",
              "vc: can't open master pty: %s, fdm %d, err:%s.\r\n",
              "the master closed");
    fault_row("vc_ptym_open", "unlockpt", "EACCES", "-3 and the errno",
              "vc: can't open master pty: %s, fdm %d, err:%s.\r\n",
              "the master closed");
    fault_row("vc_ptym_open", "ptsname_r", "EACCES", "-4 and the errno",
              "vc: can't open master pty: %s, fdm %d, err:%s.\r\n",
              "the master closed");
    const struct {
        const char *call;
        int number;
    } steps[] = {{"grantpt", -2}, {"unlockpt", -3}, {"ptsname_r", -4}};
    for (const auto &step : steps) {
        char name[20];
        const int before = dup(0);
        close(before);
        fault::fail(step.call, 1, EACCES);
        EXPECT_EQ(vc_ptym_open(name, sizeof name), step.number);
        EXPECT_EQ(errno, EACCES);
        EXPECT_STREQ(name, "/dev/ptmx");
        EXPECT_FALSE(is_open(before));
        fault::reset();
        fault::fail(step.call, 1, EACCES);
        expect_refusal(300, "vc: can't open master pty: /dev/ptmx, fdm " +
                                number(step.number) +
                                ", err:" + strerror(EACCES) + ".\r\n");
    }
}

TEST_F(SpawnTest, a_master_gives_the_name_of_its_slave)
{
    char name[20];
    const int fd = vc_ptym_open(name, sizeof name);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(std::string(name).find("/dev/pts/"), 0u);
    EXPECT_EQ(access(name, F_OK), 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    close(fd);
}

TEST_F(SpawnTest, a_slaves_name_is_cut_to_its_buffer)
{
    char name[6];
    const int fd = vc_ptym_open(name, sizeof name);
    ASSERT_GE(fd, 0);
    EXPECT_STREQ(name, "/dev/");
    close(fd);
}

TEST_F(SpawnTest, a_slave_that_cannot_be_opened_gives_minus_5)
{
    fault_row("vc_ptys_open", "open", "ENOENT", "-5",
              "vc: vc ptys open %s error, err:%s.\n", "");
    EXPECT_EQ(vc_ptys_open("/nowhere/0"), -5);
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              std::string("vc: vc ptys open /nowhere/0 "
                                          "error, err:") +
                              strerror(ENOENT) + ".\n"}));
}

static termios settings_of(int fd)
{
    termios settings = {};
    EXPECT_EQ(tcgetattr(fd, &settings), 0);
    return settings;
}

TEST_F(SpawnTest, a_new_masters_settings)
{
    char name[20];
    const int fd = vc_ptym_open(name, sizeof name);
    termios settings = settings_of(fd);
    settings.c_lflag |= ECHO | ECHOE | ECHOK | ECHONL | ICANON;
    settings.c_cflag |= CS8;
    settings.c_cflag &= ~static_cast<tcflag_t>(CREAD | CLOCAL);
    settings.c_iflag |= INPCK | ISTRIP | INLCR | ICRNL;
    settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXANY | IXOFF);
    settings.c_oflag &= ~static_cast<tcflag_t>(ONLCR);
    tcsetattr(fd, TCSANOW, &settings);
    vc_set_noecho(fd);
    settings = settings_of(fd);
    EXPECT_EQ(settings.c_lflag & (ECHO | ECHOE | ECHOK | ECHONL | ICANON), 0u);
    EXPECT_EQ(settings.c_cflag & (CREAD | CLOCAL),
              static_cast<tcflag_t>(CREAD | CLOCAL));
    EXPECT_EQ(settings.c_iflag & (IXON | IXANY | IXOFF),
              static_cast<tcflag_t>(IXON | IXANY | IXOFF));
    EXPECT_EQ(settings.c_iflag & (INPCK | ISTRIP | INLCR | ICRNL), 0u);
    EXPECT_EQ(settings.c_oflag & ONLCR, static_cast<tcflag_t>(ONLCR));
    close(fd);
}

TEST_F(SpawnTest, settings_that_fail_are_logged_and_ignored)
{
    fault_row("vc_set_noecho", "tcgetattr", "EIO", "nothing",
              "vc: set noecho tcgetattr fail, err:%s.\r\n",
              "the session starts");
    fault_row("vc_set_noecho", "tcsetattr", "EIO", "nothing",
              "vc: set noecho tcsetattr fail, err:%s.\r\n",
              "the session starts");
    fault_row("vc_child_alloc", "tcgetattr", "EIO", "the session",
              "vc: can't get attr %d, error:%s\n", "the session starts");
    fault::fail("tcgetattr", 1, EIO, 2);
    ASSERT_NE(start(300), nullptr);
    fault::reset();
    const auto texts = messages();
    EXPECT_EQ(texts[0], std::string("vc: set noecho tcgetattr fail, err:") +
                            strerror(EIO) + ".\r\n");
    EXPECT_EQ(texts[1], "vc: can't get attr " +
                            number(vc_child_at(300)->master_fd) +
                            ", error:" + strerror(EIO) + "\n");
    fault::fail("tcsetattr", 1, EIO, 2);
    ASSERT_NE(start(301), nullptr);
    fault::reset();
    EXPECT_EQ(messages()[0],
              std::string("vc: set noecho tcsetattr fail, err:") +
                  strerror(EIO) + ".\r\n");
}

TEST_F(SpawnTest, the_record_of_a_session)
{
    int sockfd = connection();
    const int given = sockfd;
    const vc_child *child = vc_child_alloc(300, &sockfd, 23, "", inetd_fd_);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(sockfd, given);
    EXPECT_EQ(vc_child_at(300), child);
    EXPECT_EQ(child->ttyno, 300);
    EXPECT_EQ(child->sockfd, given);
    EXPECT_EQ(child->inetd_fd, inetd_fd_);
    EXPECT_TRUE(isatty(child->master_fd));
    EXPECT_FALSE(vc_child_exited(child));
    EXPECT_EQ(child->in_pending, 0);
    EXPECT_EQ(child->out_pending, 0);
    EXPECT_GT(vc_child_pid(child), 0);
    EXPECT_EQ(child->reg.listen_port, 23);
    EXPECT_EQ(child->reg.protocol, 6u);
    EXPECT_TRUE(logged(
        "vc: tel-main proc, notify sub process, sockfd=" + number(given) +
        ", pid=" + number(vc_child_pid(child)) + "\n"));
}

TEST_F(SpawnTest, the_callbacks_are_called_in_order_with_their_arguments)
{
    const vc_child *child = start(300);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(g_calls.order, "alloc init ");
    EXPECT_EQ(g_calls.ttyno, 300);
    EXPECT_EQ(g_calls.alloc_inetd_fd, inetd_fd_);
    EXPECT_EQ(g_calls.alloc_sockfd, child->sockfd);
    EXPECT_EQ(g_calls.alloc_master_fd, child->master_fd);
}

TEST_F(SpawnTest, the_first_service_on_the_port_is_taken)
{
    add(plain(AF_INET6, 23, nullptr, 1));
    const vc_child *child = start(300);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(child->reg.protocol, 6u);
    EXPECT_EQ(child->reg.socket_type, AF_INET);
}

TEST_F(SpawnTest, a_service_is_found_by_its_path)
{
    add(plain(AF_UNIX, 0, "/run/x", 7));
    int sockfd = connection();
    const vc_child *child =
        vc_child_alloc(300, &sockfd, 0, "/run/x", inetd_fd_);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(child->reg.protocol, 7u);
    EXPECT_STREQ(child->reg.listen_path, "/run/x");
}

TEST_F(SpawnTest, port_0_and_an_empty_path_match_nothing)
{
    add(plain(30, 0, nullptr, 3));
    add(plain(AF_UNIX, 0, "/run/x", 7));
    int sockfd = connection();
    EXPECT_EQ(vc_child_alloc(300, &sockfd, 0, "", inetd_fd_), nullptr);
    EXPECT_EQ(sockfd, -1);
    EXPECT_EQ(messages()[0].find("vc: vc_child_alloc proc, sockfd="), 0u);
}

TEST_F(SpawnTest, a_session_of_no_service_is_cleaned_without_callbacks)
{
    int sockfd = connection();
    EXPECT_EQ(vc_child_alloc(300, &sockfd, 99, "", inetd_fd_), nullptr);
    EXPECT_EQ(g_calls.order, "");
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].port, 0);
    EXPECT_EQ(records[0].pid, 0);
}

TEST_F(SpawnTest, an_allocation_callback_that_fails_ends_the_session)
{
    g_calls.alloc_result = -1;
    expect_teardown(300, "vc: alloc func proc, sockfd=");
    EXPECT_EQ(g_calls.order, "alloc kill ");
}

TEST_F(SpawnTest, an_initialisation_callback_that_fails_ends_the_session)
{
    g_calls.init_result = -1;
    expect_teardown(300, "vc: init func proc, sockfd=");
    EXPECT_EQ(g_calls.order, "alloc init kill ");
}

static int g_left_to_programs;

// Unix sockets that a program started now would inherit.
static void count_inherited()
{
    g_left_to_programs = 0;
    for (int fd = 0; fd < 256; fd++) {
        int family = 0;
        socklen_t length = sizeof family;
        const int flags = fcntl(fd, F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0 &&
            getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &length) == 0) {
            g_left_to_programs++;
        }
    }
}

TEST_F(SpawnTest, the_release_pair_is_closed_on_exec)
{
    count_inherited();
    const int before = g_left_to_programs;
    fault::run("fork", 1, count_inherited);
    ASSERT_NE(start(300), nullptr);
    EXPECT_EQ(g_left_to_programs, before);
}

TEST_F(SpawnTest, a_pair_that_cannot_be_made_ends_the_session)
{
    fault_row("vc_child_alloc", "socketpair", "EMFILE",
              "a null pointer, and -1 for the socket",
              "(vc:%d):%s socketpair failed, err: %s\r\n",
              "the inetd hears that the line is clean");
    int sockfd = connection();
    fault::fail("socketpair", 1, EMFILE);
    EXPECT_EQ(vc_child_alloc(300, &sockfd, 23, "", inetd_fd_), nullptr);
    EXPECT_EQ(messages()[0], "(vc:" + number(getpid()) +
                                 "):vc_child_alloc socketpair failed, err: " +
                                 strerror(EMFILE) + "\r\n");
    EXPECT_EQ(sockfd, -1);
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(SpawnTest, a_fork_that_fails_ends_the_session_and_leaks_nothing)
{
    fault_row("vc_child_alloc", "fork", "EAGAIN",
              "a null pointer, and -1 for the socket",
              "vc: fork error, err:%s.\r\n",
              "the slot is free, all descriptors closed; the inetd hears that "
              "the line is clean");
    fault::fail("fork", 1, EAGAIN);
    expect_teardown(300, std::string("vc: fork error, err:") +
                             strerror(EAGAIN) + ".\r\n");
}

TEST_F(SpawnTest, a_release_into_a_broken_pipe_ends_the_session)
{
    fault_row("vc_child_alloc", "write", "EPIPE",
              "a null pointer, and -1 for the socket",
              "vc: tel-main proc, sockfd=%d, line=%d\n",
              "the slot is free, all descriptors closed; the inetd hears that "
              "the line is clean");
    // Nobody kills the child that this leaves.
    vc_service_del(23);
    vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    reg.shell_func = [](int, const char *) {
        return 0;
    };
    add(reg);
    fault::fail("write", 1, EPIPE, 1, fault::only_path("socket:"));
    expect_teardown(300, "vc: tel-main proc, sockfd=");
}

TEST_F(SpawnTest, a_release_that_fails_otherwise_keeps_the_session)
{
    fault_row("vc_child_alloc", "write", "EIO", "the session", "", "");
    int sockfd = connection();
    fault::fail("write", 1, EIO, 1, fault::only_path("socket:"));
    const vc_child *child = vc_child_alloc(300, &sockfd, 23, "", inetd_fd_);
    fault::reset();
    ASSERT_NE(child, nullptr);
    EXPECT_GT(vc_child_pid(child), 0);
}

// What the child process does, seen from its messages and its end.
class ChildTest : public SpawnTest
{
  protected:
    // Messages of any process but this one.
    std::vector<std::string> child_messages()
    {
        std::vector<std::string> texts;
        for (const std::string &line :
             support::lines_of(path("/mng/tty/.vc_dump.txt"))) {
            const std::string text = support::without_stamp(line);
            const size_t colon = text.find(':');
            if (text.substr(1, colon - 1) != number(getpid())) {
                texts.push_back(text.substr(colon + 1));
            }
        }
        return texts;
    }

    bool child_says(const std::string &start)
    {
        return support::wait_until([&] {
            const auto texts = child_messages();
            return std::any_of(texts.begin(), texts.end(),
                               [&](const std::string &text) {
                                   return text.find(start) == 0;
                               });
        });
    }

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

    // What a shell callback wrote into the runtime directory.
    std::string result() const
    {
        return support::slurp(path("/result"));
    }

    void expect_a_running_program();

    std::string slave_;
};

static void report(const std::string &text)
{
    std::ofstream(std::string(getenv("TMPDIR")) + "/result") << text;
}

static int shell_ok(int, const char *)
{
    report("ran");
    return 0;
}

// A new session comes as far as its program.
void ChildTest::expect_a_running_program()
{
    vc_service_del(23);
    vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    reg.shell_func = shell_ok;
    add(reg);
    ASSERT_NE(start(300), nullptr);
    EXPECT_TRUE(support::wait_until([&] {
        return support::exists(path("/result")) && result() == "ran";
    }));
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

TEST_F(ChildTest, the_child_is_released_and_closes_the_listeners)
{
    fault_row("vc_child_alloc", "close", "EIO", "the session",
              "(vc:%d):%s close listen fd(%d) failed, err %s.\r\n",
              "the listener that could be closed stays open in the daemon");
    const int good = dup(0);
    const int bad = dup(0);
    add(plain(AF_INET, 24, nullptr, 6));
    vc_srv *srv;
    VC_FOR_EACH_SERVICE(srv)
    {
        srv->listen_fd = srv->reg.listen_port == 23 ? good : bad;
    }
    fault::fail("close", 1, EIO, fault::ALWAYS, fault::only_fd(bad));
    ASSERT_NE(start(300), nullptr);
    EXPECT_TRUE(child_says("vc: tel-sub proc\n"));
    EXPECT_TRUE(child_says("(vc:" + number(vc_child_pid(vc_child_at(300))) +
                           "):vc_child_alloc close domain socket listen fd("));
    const std::string prefix = "(vc:" + number(vc_child_pid(vc_child_at(300))) +
                               "):vc_child_alloc close listen fd(";
    EXPECT_TRUE(child_says(prefix + number(good) + ") success, err "));
    EXPECT_TRUE(child_says(prefix + number(bad) + ") failed, err "));
    fault::reset();
    // The parent's are open still.
    EXPECT_TRUE(is_open(good));
    close(good);
    close(bad);
}

TEST_F(ChildTest, a_death_signal_that_cannot_be_asked_for_is_done_without)
{
    fault_row("vc_child_alloc", "prctl", "EINVAL", "the session", "",
              "the session program runs");
    fault::fail("prctl", 1, EINVAL);
    expect_a_running_program();
}

TEST_F(ChildTest, an_interrupted_look_for_the_release_is_repeated)
{
    fault_row("vc_child_alloc", "read", "EINTR", "the session", "",
              "the session program runs");
    fault::fail("read", 1, EINTR, 2, fault::only_path("socket:"));
    expect_a_running_program();
}

TEST_F(ChildTest, the_child_dies_with_its_parent_and_ignores_hangups)
{
    vc_service_del(23);
    vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    reg.shell_func = [](int, const char *) {
        int signo = 0;
        struct sigaction hangup = {};
        prctl(PR_GET_PDEATHSIG, &signo);
        sigaction(SIGHUP, nullptr, &hangup);
        report(std::to_string(signo) +
               (hangup.sa_handler == SIG_IGN ? " ignored" : " caught"));
        return 0;
    };
    add(reg);
    ASSERT_NE(start(300), nullptr);
    EXPECT_TRUE(support::wait_until([&] {
        return support::exists(path("/result")) && result() != "";
    }));
    EXPECT_EQ(result(), "9 ignored");
}

TEST_F(ChildTest, a_child_that_is_never_released_gives_up_with_0)
{
    fault_row("vc_child_alloc", "read", "EAGAIN",
              "the child ends with status 0",
              "(vc:%d): %s father process don't notify.\r\n", "");
    const pid_t pid = fork();
    if (pid == 0) {
        fault::result("fork", 1, 0);
        fault::result("usleep", 1, 0, fault::ALWAYS);
        // The second socket closed is the parent's end: it stays open here, so
        // that the end of the stream does not come.
        fault::result("close", 2, 0, 1, fault::only_path("socket:"));
        int sockfd = connection();
        vc_child_alloc(300, &sockfd, 23, "", inetd_fd_);
        _exit(9);
    }
    EXPECT_EQ(support::wait_child(pid), 0);
    const auto texts = child_messages();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back(), "(vc:" + number(pid) +
                                "): vc_child_alloc father process don't "
                                "notify.\r\n");
}
