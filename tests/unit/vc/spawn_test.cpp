#include "vc/spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/spawn_fixture.h"
#include "vc/pty.h"
#include "vc/service.h"
#include "vc/session.h"

class SpawnTest : public SpawnFixture
{
  protected:
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

    void expect_a_running_program();
};

// A new session comes as far as its program.
void SpawnTest::expect_a_running_program()
{
    vc_service_del(23);
    vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    reg.shell_func = [](int, const char *) {
        report("ran");
        return 0;
    };
    add(reg);
    ASSERT_NE(start(300), nullptr);
    EXPECT_TRUE(support::wait_until([&] {
        return support::exists(path("/result")) && result() == "ran";
    }));
}

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

TEST_F(SpawnTest, a_master_that_cannot_be_prepared_is_numbered_by_its_step)
{
    fault_row("vc_child_alloc", "grantpt", "EACCES", "a null pointer",
              "vc: can't open master pty: %s, fdm %d, err:%s.\r\n",
              "the socket is the caller's");
    fault_row("vc_child_alloc", "unlockpt", "EACCES", "a null pointer",
              "vc: can't open master pty: %s, fdm %d, err:%s.\r\n",
              "the socket is the caller's");
    fault_row("vc_child_alloc", "ptsname_r", "EACCES", "a null pointer",
              "vc: can't open master pty: %s, fdm %d, err:%s.\r\n",
              "the socket is the caller's");
    const struct {
        const char *call;
        int number;
    } steps[] = {{"grantpt", -2}, {"unlockpt", -3}, {"ptsname_r", -4}};
    for (const auto &step : steps) {
        fault::fail(step.call, 1, EACCES);
        expect_refusal(300, "vc: can't open master pty: /dev/ptmx, fdm " +
                                number(step.number) +
                                ", err:" + strerror(EACCES) + ".\r\n");
    }
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

static int g_own[2];

static int note_own(int, int, int sockfd, int master_fd)
{
    g_own[0] = sockfd;
    g_own[1] = master_fd;
    return 0;
}

// A program that is executed may use them; the daemon's own stay closed to
// programs that other threads start.
TEST_F(SpawnTest, the_sessions_own_descriptors_outlive_an_exec_in_the_child)
{
    vc_service_del(23);
    vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    reg.alloc_func = note_own;
    reg.shell_func = [](int, const char *) {
        report(std::to_string(fcntl(g_own[0], F_GETFD)) + " " +
               std::to_string(fcntl(g_own[1], F_GETFD)));
        return 0;
    };
    add(reg);
    const vc_child *child = start(300);
    ASSERT_NE(child, nullptr);
    EXPECT_TRUE(support::wait_until([&] {
        return support::exists(path("/result")) && !result().empty();
    }));
    EXPECT_EQ(result(), "0 0");
    EXPECT_EQ(fcntl(child->sockfd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(child->master_fd, F_GETFD), FD_CLOEXEC);
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

TEST_F(SpawnTest, the_child_is_released_and_closes_the_listeners)
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

TEST_F(SpawnTest, a_death_signal_that_cannot_be_asked_for_is_done_without)
{
    fault_row("vc_child_alloc", "prctl", "EINVAL", "the session", "",
              "the session program runs");
    fault::fail("prctl", 1, EINVAL);
    expect_a_running_program();
}

TEST_F(SpawnTest, an_interrupted_look_for_the_release_is_repeated)
{
    fault_row("vc_child_alloc", "read", "EINTR", "the session", "",
              "the session program runs");
    fault::fail("read", 1, EINTR, 2, fault::only_path("socket:"));
    expect_a_running_program();
}

TEST_F(SpawnTest, a_wait_for_the_release_that_fails_is_done_without)
{
    fault_row("vc_child_alloc", "poll", "EINTR", "the session", "",
              "the session program runs");
    fault::fail("poll", 1, EINTR, fault::ALWAYS);
    expect_a_running_program();
}

static int g_sleeps;

static int report_sleeps(int, const char *)
{
    report(std::to_string(fault::seen(g_sleeps)));
    return 0;
}

// A child that has looked in vain sleeps for 100 ms, one that waits does not.
// Of some children one at least is released while it waits, however busy the
// machine is; the one sleep is that after the byte.
TEST_F(SpawnTest, a_child_waits_for_its_release_before_it_looks)
{
    std::string fewest = "9";

    vc_service_del(23);
    vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    reg.shell_func = report_sleeps;
    add(reg);
    for (int ttyno = 300; ttyno < 310 && fewest != "1"; ttyno++) {
        fault::reset();
        g_sleeps = fault::watch("usleep");
        fault::run(
            "write", 1,
            [] {
                usleep(10000);
            },
            1, fault::only_path("socket:"));
        ASSERT_NE(start(ttyno), nullptr);
        ASSERT_TRUE(support::wait_until([&] {
            return support::exists(path("/result")) && !result().empty();
        }));
        fewest = std::min(fewest, result());
        unlink(path("/result").c_str());
    }
    EXPECT_EQ(fewest, "1");
}

TEST_F(SpawnTest, the_child_dies_with_its_parent_and_ignores_hangups)
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
        return support::exists(path("/result")) && !result().empty();
    }));
    EXPECT_EQ(result(), "9 ignored");
}

static std::atomic<bool> g_changed;

// Another thread that changes the list in the middle of the fork would leave
// the child half of the change.
TEST_F(SpawnTest, no_service_changes_during_the_fork)
{
    static std::thread other;
    static bool changed_meanwhile;

    fault::run("fork", 1, [] {
        other = std::thread([] {
            vc_deal_service_listen(false, 6);
            g_changed = true;
        });
        for (int i = 0; i < 50 && !g_changed; i++) {
            usleep(1000);
        }
        changed_meanwhile = g_changed;
    });
    ASSERT_NE(start(300), nullptr);
    other.join();
    EXPECT_FALSE(changed_meanwhile);
    EXPECT_TRUE(g_changed);
}

static void outlive_the_parent()
{
    const pid_t parent = getppid();

    kill(parent, SIGKILL);
    while (getppid() == parent) {
        usleep(1000);
    }
}

// It dies before the child has asked for the signal that would tell it.
TEST_F(SpawnTest, a_child_whose_parent_has_died_meanwhile_runs_nothing)
{
    int ends[2];
    char byte;

    vc_service_del(23);
    vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    reg.shell_func = [](int, const char *) {
        report("ran");
        return 0;
    };
    add(reg);
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t parent = fork();
    if (parent == 0) {
        fault::run("prctl", 1, outlive_the_parent);
        start(300);
        for (;;) {
            pause();
        }
    }
    close(ends[1]);
    EXPECT_EQ(waitpid(parent, nullptr, 0), parent);
    // The end of its child is that of the pipe.
    pollfd end = {ends[0], POLLIN, 0};
    ASSERT_EQ(poll(&end, 1, 20000), 1);
    EXPECT_EQ(read(ends[0], &byte, 1), 0);
    EXPECT_FALSE(support::exists(path("/result")));
    close(ends[0]);
}

TEST_F(SpawnTest, a_child_that_is_never_released_gives_up_with_0)
{
    fault_row("vc_child_alloc", "read", "EAGAIN",
              "the child ends with status 0",
              "(vc:%d): %s father process don't notify.\r\n", "");
    const pid_t pid = fork();
    if (pid == 0) {
        fault::result("fork", 1, 0);
        fault::result("usleep", 1, 0, fault::ALWAYS);
        fault::result("getppid", 1, getpid());
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
