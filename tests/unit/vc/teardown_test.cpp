#include "vc/teardown.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/session.h"

// A session made by hand: no forked child unless a test wants one.
class TeardownTest : public VcTest
{
  protected:
    void TearDown() override
    {
        socket_.reset();
        VcTest::TearDown();
    }

    vc_child *session(int ttyno)
    {
        socket_.emplace();
        auto *child = static_cast<vc_child *>(calloc(1, sizeof(vc_child)));
        child->ttyno = ttyno;
        child->sockfd = socket_->fd;
        child->master_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        child->inetd_fd = inetd_fd_;
        child->reg = plain(AF_INET, 2323, nullptr, 6);
        vc_child_install(ttyno, child);
        return child;
    }

    // A child that lives until it is signalled.
    static pid_t sleeper()
    {
        const pid_t pid = fork();
        if (pid == 0) {
            for (;;) {
                pause();
            }
        }
        return pid;
    }

    static int ending_signal(pid_t pid)
    {
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

    std::optional<Listener> socket_;
};

TEST_F(TeardownTest, the_steps_are_logged_in_their_order)
{
    vc_child *child = session(300);
    const pid_t pid = sleeper();
    vc_child_set_pid(child, pid);
    const std::string master = std::to_string(child->master_fd);
    vc_child_kill(child);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{
                  "vc: kill client 300\n",
                  "vc: close sock_fd " + std::to_string(socket_->fd) + "\n",
                  "vc: close child_fd " + master + "\n",
                  "vc: kill pid " + std::to_string(pid) + "\n",
                  "vc: free child, TTY[300]\n",
                  "vc: send line-clean msg to inetd\n"}));
    ending_signal(pid);
}

TEST_F(TeardownTest, the_socket_is_shut_down_and_both_ends_closed)
{
    vc_child *child = session(300);
    const int master = child->master_fd;
    vc_child_kill(child);
    EXPECT_TRUE(socket_->shut_down());
    EXPECT_TRUE(socket_->closed());
    EXPECT_EQ(fcntl(master, F_GETFD), -1);
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_EQ(g_calls.kill, 1);
}

static int g_sock_seen;

static int kill_that_looks(int ttyno)
{
    g_sock_seen = vc_child_at(ttyno)->sockfd;
    return fcntl(g_sock_seen, F_GETFD) == -1 ? g_sock_seen = -1 : 0;
}

TEST_F(TeardownTest, the_kill_callback_runs_before_anything_is_closed)
{
    vc_child *child = session(300);
    child->reg.kill_func = kill_that_looks;
    vc_child_kill(child);
    EXPECT_EQ(g_sock_seen, socket_->fd);
}

TEST_F(TeardownTest, the_line_clean_record_names_line_port_protocol_and_pid)
{
    vc_child *child = session(1585);
    const pid_t pid = sleeper();
    vc_child_set_pid(child, pid);
    vc_child_kill(child);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].vc_flag, 0x002u);
    EXPECT_EQ(records[0].ttyno, 1585);
    EXPECT_EQ(records[0].port, 2323);
    EXPECT_EQ(records[0].protocol, 6);
    EXPECT_EQ(records[0].pid, pid);
    ending_signal(pid);
}

TEST_F(TeardownTest, a_session_without_pid_is_ended_without_a_signal)
{
    vc_child *child = session(300);
    const int kills = fault::watch("kill");
    vc_child_kill(child);
    EXPECT_EQ(fault::seen(kills), 0);
    EXPECT_EQ(sent()[0].pid, 0);
}

TEST_F(TeardownTest, the_child_is_killed_when_the_cache_file_is_absent)
{
    fault_row("vc_child_kill", "access", "ENOENT", "nothing", "",
              "the session's process is sent SIGKILL instead of SIGHUP");
    vc_child *child = session(300);
    const pid_t pid = sleeper();
    vc_child_set_pid(child, pid);
    vc_child_kill(child);
    EXPECT_EQ(ending_signal(pid), SIGKILL);
}

TEST_F(TeardownTest, the_child_is_hung_up_when_the_cache_file_exists)
{
    make_directories();
    support::spill(path("/mng/tty/.tty_rl_terminal_cache"), "");
    vc_child *child = session(300);
    const pid_t pid = sleeper();
    vc_child_set_pid(child, pid);
    vc_child_kill(child);
    EXPECT_EQ(ending_signal(pid), SIGHUP);
}

TEST_F(TeardownTest, a_process_that_cannot_be_signalled_does_not_stop_it)
{
    fault_row("vc_child_kill", "kill", "ESRCH, EPERM", "nothing", "",
              "the slot is free; the inetd hears that the line is clean");
    for (const int error : {ESRCH, EPERM}) {
        vc_child *child = session(300);
        const pid_t pid = sleeper();
        vc_child_set_pid(child, pid);
        fault::fail("kill", 1, error);
        vc_child_kill(child);
        fault::reset();
        EXPECT_EQ(vc_child_at(300), nullptr);
        EXPECT_EQ(sent().size(), 1u);
        kill(pid, SIGTERM);
        EXPECT_EQ(ending_signal(pid), SIGTERM);
    }
}

TEST_F(TeardownTest, a_cache_path_that_does_not_fit_counts_as_absent)
{
    const std::string long_name(120, 'd');
    setenv("TMPDIR", long_name.c_str(), 1);
    vc_child *child = session(300);
    const pid_t pid = sleeper();
    vc_child_set_pid(child, pid);
    vc_child_kill(child);
    EXPECT_EQ(ending_signal(pid), SIGKILL);
    setenv("TMPDIR", runtime_dir.c_str(), 1);
    EXPECT_EQ(messages()[0],
              "make file /mng/tty/.tty_rl_terminal_cache fail errno:" +
                  std::to_string(ENAMETOOLONG) + ", " + strerror(ENAMETOOLONG) +
                  "\n");
}

TEST_F(TeardownTest, a_null_record_does_nothing_but_build_the_path)
{
    vc_child_kill(nullptr);
    EXPECT_TRUE(messages().empty());
    const std::string long_name(120, 'd');
    setenv("TMPDIR", long_name.c_str(), 1);
    vc_child_kill(nullptr);
    setenv("TMPDIR", runtime_dir.c_str(), 1);
    EXPECT_EQ(messages().size(), 1u);
}

TEST_F(TeardownTest, closed_descriptors_are_not_closed_again)
{
    vc_child *child = session(300);
    close(child->sockfd);
    close(child->master_fd);
    child->sockfd = -1;
    child->master_fd = -1;
    vc_child_kill(child);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{"vc: kill client 300\n",
                                        "vc: free child, TTY[300]\n",
                                        "vc: send line-clean msg to inetd\n"}));
}

TEST_F(TeardownTest, without_an_inetd_no_record_is_sent)
{
    vc_child *child = session(300);
    child->inetd_fd = -1;
    vc_child_kill(child);
    EXPECT_EQ(messages().back(), "vc: free child, TTY[300]\n");
    EXPECT_EQ(vc_child_at(300), nullptr);
}

TEST_F(TeardownTest, without_a_kill_callback_none_is_called)
{
    vc_child *child = session(300);
    child->reg = {};
    vc_child_kill(child);
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(TeardownTest, the_connection_is_made_blocking_for_the_record)
{
    vc_child *child = session(300);
    fcntl(inetd_fd_, F_SETFL, O_NONBLOCK);
    vc_child_kill(child);
    EXPECT_EQ(fcntl(inetd_fd_, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(TeardownTest, a_broken_pipe_ends_the_attempts)
{
    fault_row("vc_child_kill", "write", "EPIPE", "nothing", "",
              "the slot is free");
    vc_child *child = session(300);
    fault::fail("write", 1, EPIPE, fault::ALWAYS, fault::only_fd(inetd_fd_));
    vc_child_kill(child);
    fault::reset();
    EXPECT_EQ(messages().back(), "vc: send line-clean msg to inetd\n");
    EXPECT_EQ(vc_child_at(300), nullptr);
}

TEST_F(TeardownTest, a_short_or_interrupted_record_is_completed)
{
    fault_row("vc_child_kill", "write", "short, EINTR", "nothing", "",
              "the inetd hears once that the line is clean");
    vc_child *child = session(300);
    fault::shorten("write", 1, 100, 1, fault::only_fd(inetd_fd_));
    fault::fail("write", 2, EINTR, 1, fault::only_fd(inetd_fd_));
    const int pauses = fault::watch("usleep");
    vc_child_kill(child);
    EXPECT_EQ(fault::seen(pauses), 0);
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_EQ(vc_child_at(300), nullptr);
}

TEST_F(TeardownTest, other_errors_are_retried_every_100_ms)
{
    fault_row("vc_child_kill", "write", "EIO",
              "nothing, after a pause for each failure",
              "vc: resend to qv-tty-admin, error: %s\n",
              "the inetd hears of the line once");
    vc_child *child = session(300);
    fault::fail("write", 1, EIO, 3, fault::only_fd(inetd_fd_));
    const int pauses = fault::watch("usleep");
    vc_child_kill(child);
    EXPECT_EQ(fault::seen(pauses), 3);
    fault::reset();
    const auto texts = messages();
    const std::string resend =
        std::string("vc: resend to qv-tty-admin, error: ") + strerror(EIO) +
        "\n";
    EXPECT_EQ(std::count(texts.begin(), texts.end(), resend), 3);
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(TeardownTest, a_descriptor_that_is_none_is_given_up_after_a_while)
{
    fault_row("vc_child_kill", "write", "EBADF", "nothing", "",
              "the slot is free");
    vc_child *child = session(300);
    fault::fail("write", 1, EBADF, fault::ALWAYS, fault::only_fd(inetd_fd_));
    vc_child_kill(child);
    fault::reset();
    EXPECT_EQ(vc_child_at(300), nullptr);
}

TEST_F(TeardownTest, a_number_that_became_a_listener_is_given_up_too)
{
    fault_row("vc_child_kill", "write", "ENOTCONN", "nothing", "",
              "the slot is free");
    vc_child *child = session(300);
    fault::fail("write", 1, ENOTCONN, fault::ALWAYS, fault::only_fd(inetd_fd_));
    vc_child_kill(child);
    fault::reset();
    EXPECT_EQ(vc_child_at(300), nullptr);
}

TEST_F(TeardownTest, a_process_that_has_been_reaped_is_not_signalled)
{
    vc_child *child = session(300);
    vc_child_set_pid(child, 4242);
    vc_child_set_exited(child);
    const int kills = fault::watch("kill");
    vc_child_kill(child);
    EXPECT_EQ(fault::seen(kills), 0);
    EXPECT_TRUE(logged("vc: kill pid 4242\n"));
    EXPECT_EQ(sent()[0].pid, 4242);
}
