#include "vc/signals.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/session.h"

class SignalsTest : public VcTest
{
  protected:
    void TearDown() override
    {
        for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
            if (vc_child_at(ttyno) != nullptr) {
                vc_child_release(vc_child_at(ttyno));
            }
        }
        signal(SIGCHLD, SIG_DFL);
        VcTest::TearDown();
    }

    static struct sigaction disposition(int signo)
    {
        struct sigaction action = {};
        sigaction(signo, nullptr, &action);
        return action;
    }

    // A session whose process is pid, without connection or inetd.
    static vc_child *session(int ttyno, pid_t pid)
    {
        auto *child = static_cast<vc_child *>(calloc(1, sizeof(vc_child)));
        child->ttyno = ttyno;
        child->sockfd = -1;
        child->master_fd = -1;
        child->inetd_fd = -1;
        vc_child_install(ttyno, child);
        vc_child_set_pid(child, pid);
        return child;
    }

    // A child that ends with the status once it may.
    static pid_t ending_child(int status)
    {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(status);
        }
        // Ended, but left to be reaped.
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
        return pid;
    }
};

TEST_F(SignalsTest, dispositions_are_installed)
{
    vc_init_sigchld(true);
    EXPECT_EQ(disposition(SIGCHLD).sa_handler, vc_handle_sigchld);
    EXPECT_EQ(disposition(SIGHUP).sa_handler, vc_handle_sighup);
    EXPECT_EQ(disposition(SIGQUIT).sa_handler, SIG_IGN);
    EXPECT_EQ(disposition(SIGINT).sa_handler, SIG_IGN);
    EXPECT_EQ(disposition(SIGPIPE).sa_handler, SIG_IGN);
}

TEST_F(SignalsTest, handlers_neither_restart_calls_nor_reset_themselves)
{
    vc_init_sigchld(true);
    for (const int signo : {SIGCHLD, SIGHUP}) {
        EXPECT_EQ(disposition(signo).sa_flags & SA_RESTART, 0);
        EXPECT_EQ(disposition(signo).sa_flags & static_cast<int>(SA_RESETHAND),
                  0);
    }
}

TEST_F(SignalsTest, protocol_10_first_leaves_sigchld_alone)
{
    signal(SIGCHLD, SIG_DFL);
    const vc_reg reg = plain(AF_UNIX, 0, "/tmp/x", 10);
    ASSERT_EQ(vc_service_reg(&reg), 0);
    EXPECT_EQ(disposition(SIGCHLD).sa_handler, SIG_DFL);
    EXPECT_EQ(disposition(SIGHUP).sa_handler, vc_handle_sighup);
    EXPECT_EQ(disposition(SIGPIPE).sa_handler, SIG_IGN);
}

TEST_F(SignalsTest, protocol_10_later_changes_nothing)
{
    const vc_reg inet = plain(AF_INET, 23, nullptr, 6);
    const vc_reg inpath = plain(AF_UNIX, 0, "/tmp/x", 10);
    ASSERT_EQ(vc_service_reg(&inet), 0);
    ASSERT_EQ(vc_service_reg(&inpath), 0);
    EXPECT_EQ(disposition(SIGCHLD).sa_handler, vc_handle_sigchld);
}

TEST_F(SignalsTest, a_refused_first_registration_decides_the_handlers)
{
    signal(SIGCHLD, SIG_DFL);
    const vc_reg refused = plain(AF_INET, 23, nullptr, 10);
    ASSERT_EQ(vc_service_reg(&refused), -1);
    const vc_reg inet = plain(AF_INET, 23, nullptr, 6);
    ASSERT_EQ(vc_service_reg(&inet), 0);
    EXPECT_EQ(disposition(SIGCHLD).sa_handler, SIG_DFL);
}

TEST_F(SignalsTest, handlers_install_themselves_again)
{
    vc_init_sigchld(true);
    signal(SIGHUP, SIG_DFL);
    signal(SIGCHLD, SIG_DFL);
    vc_handle_sighup(SIGHUP);
    vc_handle_sigchld(SIGCHLD);
    EXPECT_EQ(disposition(SIGHUP).sa_handler, vc_handle_sighup);
    EXPECT_EQ(disposition(SIGCHLD).sa_handler, vc_handle_sigchld);
}

TEST_F(SignalsTest, many_hangups_do_not_end_the_process)
{
    vc_init_sigchld(true);
    for (int i = 0; i < 5000; i++) {
        raise(SIGHUP);
    }
    EXPECT_TRUE(messages().empty());
}

TEST_F(SignalsTest, a_reaped_child_marks_its_session)
{
    const pid_t pid = ending_child(0);
    const vc_child *child = session(300, pid);
    vc_handle_sigchld(SIGCHLD);
    EXPECT_TRUE(vc_child_exited(child));
    EXPECT_EQ(vc_child_at(300), child);
    const auto texts = messages();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0].find("telnetd: sigchld signal capture " +
                            std::to_string(pid) + ", errno("),
              0u);
}

TEST_F(SignalsTest, two_children_are_reaped_in_one_run)
{
    const vc_child *first = session(300, ending_child(0));
    const vc_child *second = session(301, ending_child(0));
    const vc_child *third = session(302, getpid());
    vc_handle_sigchld(SIGCHLD);
    EXPECT_TRUE(vc_child_exited(first));
    EXPECT_TRUE(vc_child_exited(second));
    EXPECT_FALSE(vc_child_exited(third));
}

TEST_F(SignalsTest, a_child_of_no_session_is_reaped_and_logged)
{
    const pid_t pid = ending_child(0);
    vc_handle_sigchld(SIGCHLD);
    EXPECT_EQ(messages().size(), 1u);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
}

TEST_F(SignalsTest, the_first_session_of_the_pid_is_marked_only)
{
    const pid_t pid = ending_child(0);
    const vc_child *first = session(300, pid);
    const vc_child *second = session(301, pid);
    vc_handle_sigchld(SIGCHLD);
    EXPECT_TRUE(vc_child_exited(first));
    EXPECT_FALSE(vc_child_exited(second));
}

static int g_exit_status;
static int g_exit_pid;
static bool g_marked_before;

static void note_exit(int status, int pid)
{
    g_exit_status = status;
    g_exit_pid = pid;
    g_marked_before = vc_child_exited(vc_child_of_pid(pid));
}

TEST_F(SignalsTest, the_exit_callback_gets_the_status_undecoded)
{
    const pid_t pid = ending_child(3);
    vc_child *child = session(300, pid);
    child->reg.exit_func = note_exit;
    vc_handle_sigchld(SIGCHLD);
    EXPECT_EQ(g_exit_status, 3 << 8);
    EXPECT_EQ(g_exit_pid, pid);
    EXPECT_FALSE(g_marked_before);
    EXPECT_TRUE(vc_child_exited(child));
}

TEST_F(SignalsTest, errno_is_the_same_after_the_handler)
{
    ending_child(0);
    errno = EXDEV;
    vc_handle_sigchld(SIGCHLD);
    EXPECT_EQ(errno, EXDEV);
    vc_handle_sigchld(SIGCHLD);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(SignalsTest, an_interrupted_wait_is_logged_and_repeated)
{
    fault_row("vc_handle_sigchld", "waitpid", "EINTR", "nothing",
              "telnetd: sigchld signal capture %d, errno(%d)\n",
              "the child is reaped, its session marked");
    const pid_t pid = ending_child(0);
    const vc_child *child = session(300, pid);
    fault::fail("waitpid", 1, EINTR);
    vc_handle_sigchld(SIGCHLD);
    EXPECT_TRUE(vc_child_exited(child));
    const auto texts = messages();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0], "telnetd: sigchld signal capture -1, errno(" +
                            std::to_string(EINTR) + ")\n");
}

TEST_F(SignalsTest, the_loops_check_tears_the_session_down)
{
    const pid_t pid = ending_child(0);
    session(300, pid);
    vc_check_child();
    EXPECT_EQ(vc_child_at(300), nullptr);
    const auto texts = messages();
    ASSERT_GE(texts.size(), 2u);
    EXPECT_EQ(texts[0].find("vc: child " + std::to_string(pid) +
                            " is captured, errno("),
              0u);
    EXPECT_EQ(texts[1], "vc: kill client 300\n");
}

TEST_F(SignalsTest, the_loops_check_repeats_after_an_interruption)
{
    fault_row("vc_check_child", "waitpid", "EINTR", "nothing",
              "vc: child %d is captured, errno(%d): %s\n",
              "the child is reaped, its session torn down");
    const pid_t pid = ending_child(0);
    session(300, pid);
    fault::fail("waitpid", 1, EINTR);
    vc_check_child();
    EXPECT_EQ(messages()[0], "vc: child -1 is captured, errno(" +
                                 std::to_string(EINTR) +
                                 "): " + strerror(EINTR) + "\n");
    EXPECT_EQ(vc_child_at(300), nullptr);
}

TEST_F(SignalsTest, the_loops_check_does_not_call_the_exit_callback)
{
    vc_child *child = session(300, ending_child(0));
    child->reg.exit_func = note_exit;
    vc_check_child();
    EXPECT_EQ(g_exit_pid, 0);
}

TEST_F(SignalsTest, the_loops_check_without_children_says_nothing)
{
    fault_row("vc_check_child", "waitpid", "ECHILD", "nothing", "", "");
    vc_check_child();
    EXPECT_TRUE(messages().empty());
}

TEST_F(SignalsTest, a_thread_that_is_to_end_finishes_the_handler_first)
{
    const vc_child *child = session(300, ending_child(0));
    static std::atomic<bool> finished{false};
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *) -> void * {
                      pthread_cancel(pthread_self());
                      vc_handle_sigchld(SIGCHLD);
                      finished = true;
                      pthread_testcancel();
                      return nullptr;
                  },
                  nullptr),
              0);
    pthread_join(thread, nullptr);
    EXPECT_TRUE(finished);
    EXPECT_TRUE(vc_child_exited(child));
    // Not waited for in vain.
    vc_child_release(vc_child_at(300));
}
