// The line console behind an in-path session.
#include "vc/inpath.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/machine.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/inpath_fixture.h"
#include "vc/session.h"

static std::vector<int> g_closed;
static int g_expected[3];

// One decimal digit for each, 1 when it is open.
static void look_what_is_open()
{
    int open_ones = 0;
    for (const int fd : g_expected) {
        open_ones = 10 * open_ones + (is_open(fd) ? 1 : 0);
    }
    g_closed.push_back(open_ones);
}

TEST_F(InpathTest, clean_resource_closes_inetd_master_and_client)
{
    EXPECT_EQ(support::in_child([&] {
                  g_expected[0] = inetd_fd_;
                  g_expected[1] = master_fd_;
                  g_expected[2] = sockfd_;
                  alloc(300);
                  // Before each close only the ones before it are closed.
                  fault::run("close", 1, look_what_is_open, 1,
                             fault::only_fd(inetd_fd_));
                  fault::run("close", 1, look_what_is_open, 1,
                             fault::only_fd(master_fd_));
                  fault::run("close", 1, look_what_is_open, 1,
                             fault::only_fd(sockfd_));
                  vc_inpath_clean_resource(300);
                  look_what_is_open();
                  return g_closed == std::vector<int>{111, 11, 1, 0} &&
                         !is_open(inetd_fd_) && sessions() == 1;
              }),
              0);
}

TEST_F(InpathTest, clean_resource_without_a_record_closes_nothing)
{
    const int closes = fault::watch("close");
    vc_inpath_clean_resource(300);
    EXPECT_EQ(fault::seen(closes), 0);
}

TEST_F(InpathTest, clean_resource_skips_what_is_closed_already)
{
    ASSERT_EQ(alloc(300), 0);
    auto *record = reinterpret_cast<int32_t *>(g_vc_inpath_list.next + 1);
    record[1] = record[2] = record[3] = -1;
    const int closes = fault::watch("close");
    vc_inpath_clean_resource(300);
    EXPECT_EQ(fault::seen(closes), 0);
}

TEST_F(InpathTest, the_shell_of_a_bad_line_ends_with_status_0)
{
    int status = -1;
    EXPECT_EQ(shell(1586, "/dev/pts/9", &status),
              (texts{"vc: invalid ttyno(1586)\n"}));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(shell(-1, "/dev/pts/9", &status),
              (texts{"vc: invalid ttyno(-1)\n"}));
}

TEST_F(InpathTest, the_console_gets_line_and_device)
{
    int status = -1;
    install_console("for a in \"$@\"; do echo \"[$a]\"; done >" +
                    path("/arguments"));
    EXPECT_EQ(shell(300, "/dev/pts/9", &status),
              (texts{"vc:ttyno: 300, ttydev: /dev/pts/9, ttytype: \n"}));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(support::slurp(path("/arguments")),
              "[-n 300]\n[-t /dev/pts/9]\n");
}

TEST_F(InpathTest, the_console_of_a_session_gets_its_peer)
{
    int status = -1;
    vc_child child = {};
    child.ttyno = 300;
    child.sockfd = sockfd_;
    child.reg.protocol = 10;
    vc_child_install(300, &child);
    ASSERT_EQ(alloc(300), 0);
    install_console("for a in \"$@\"; do echo \"[$a]\"; done >" +
                    path("/arguments"));
    // The connection is closed by then, which leaves no address.
    EXPECT_EQ(shell(300, "/dev/pts/9", &status),
              (texts{"vc: getpeername(" + number(sockfd_) +
                         ") fail(-1), errno=9 " + strerror(EBADF) + "\n",
                     "vc:ttyno: 300, ttydev: /dev/pts/9, ttytype: ins\n"}));
    EXPECT_EQ(support::slurp(path("/arguments")),
              "[-n 300]\n[-t /dev/pts/9]\n[-i ins]\n");
    vc_child_clear_all();
}

TEST_F(InpathTest, the_console_gets_the_longest_peer_whole)
{
    int status = -1;
    vc_child child = {};
    child.ttyno = 300;
    child.sockfd = sockfd_;
    child.reg.protocol = 10;
    vc_child_install(300, &child);
    install_console("for a in \"$@\"; do echo \"[$a]\"; done >" +
                    path("/arguments"));
    sockaddr_in6 peer = {};
    peer.sin6_family = AF_INET6;
    memset(&peer.sin6_addr, 0x11, sizeof peer.sin6_addr);
    fault::name("getpeername", 1, &peer, sizeof peer);
    shell(300, "/dev/pts/9", &status);
    EXPECT_EQ(support::slurp(path("/arguments")),
              "[-n 300]\n[-t /dev/pts/9]\n"
              "[-i ins(1111:1111:1111:1111:1111:1111:1111:1111)]\n");
    vc_child_clear_all();
}

TEST_F(InpathTest, the_console_does_not_inherit_the_sessions_descriptors)
{
    int status = -1;
    // Inherited but for what is closed by the callback.
    for (const int fd : {inetd_fd_, sockfd_, master_fd_}) {
        fcntl(fd, F_SETFD, 0);
    }
    ASSERT_EQ(alloc(300), 0);
    install_console("for f in " + number(inetd_fd_) + " " + number(sockfd_) +
                    " " + number(master_fd_) +
                    "; do [ -e /proc/$$/fd/$f ] && exit 3; done; exit 4");
    shell(300, "/dev/pts/9", &status);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 4);
}

TEST_F(InpathTest, a_console_that_cannot_be_found_is_reported)
{
    fault_row("vc_inpath_shell_func", "execvp", "ENOENT",
              "the child ends with status 0",
              "vc: can't execute program, %s not found, err: %s\n", "");
    int status = -1;
    setenv("PATH", "/nonexistent", 1);
    EXPECT_EQ(shell(300, "/dev/pts/9", &status),
              (texts{"vc:ttyno: 300, ttydev: /dev/pts/9, ttytype: \n",
                     "vc: can't execute program, rl-con not found, err: " +
                         std::string(strerror(ENOENT)) + "\n",
                     "vc:tel_shell_func over\n"}));
    EXPECT_EQ(status, 0);
}

// The child ends with exit(): what the daemon has registered is run.
TEST_F(InpathTest, a_shell_that_ends_runs_the_exit_handlers)
{
    static const char *note;
    const std::string name = path("/exited");
    int status = -1;
    note = name.c_str();
    setenv("PATH", "/nonexistent", 1);
    for (const int ttyno : {300, 1586}) {
        shell(ttyno, "/dev/pts/9", &status, [] {
            atexit([] {
                support::spill(note, "");
            });
        });
        EXPECT_TRUE(support::exists(name)) << ttyno;
        unlink(note);
    }
}

TEST_F(InpathTest, without_memory_for_the_arguments_nothing_is_executed)
{
    fault_row("vc_inpath_shell_func", "strdup", "ENOMEM",
              "the child ends with status 0", "vc:tel_shell_func over\n",
              "nothing executed");
    fault_row("vc_inpath_shell_func", "malloc", "ENOMEM",
              "the child ends with status 0", "vc:tel_shell_func over\n",
              "nothing executed");
    int status = -1;
    install_console("exit 3");
    EXPECT_EQ(shell(300, "/dev/pts/9", &status,
                    [] {
                        fault::fail("strdup", 1, ENOMEM);
                    }),
              (texts{"vc:tel_shell_func over\n"}));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(shell(300, "/dev/pts/9", &status,
                    [] {
                        fault::fail("malloc", 1, ENOMEM);
                    }),
              (texts{"vc:tel_shell_func over\n"}));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(shell(300, "/dev/pts/9", &status,
                    [] {
                        fault::fail("malloc", 2, ENOMEM);
                    }),
              (texts{"vc:tel_shell_func over\n"}));
    EXPECT_EQ(status, 0);
}

TEST_F(InpathTest, without_memory_for_the_peer_the_child_ends_at_once)
{
    support::not_in_guest("operator new calls malloc() too");
    fault_row("vc_inpath_shell_func", "malloc", "ENOMEM",
              "the child ends with status 0", "",
              "nothing executed, nothing logged");
    int status = -1;
    vc_child child = {};
    child.sockfd = sockfd_;
    child.reg.protocol = 10;
    vc_child_install(300, &child);
    install_console("exit 3");
    EXPECT_EQ(shell(300, "/dev/pts/9", &status,
                    [] {
                        fault::fail("malloc", 3, ENOMEM);
                    }),
              texts{});
    EXPECT_EQ(status, 0);
    vc_child_clear_all();
}
