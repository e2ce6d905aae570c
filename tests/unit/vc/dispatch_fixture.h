// Records from an inetd that the test plays, and what they need: permits,
// assignments, sessions, connections that wait.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/accept.h"
#include "vc/dispatch.h"
#include "vc/list.h"
#include "vc/pending.h"
#include "vc/service.h"
#include "vc/session.h"
#include "vc/teardown.h"

class DispatchTest : public VcTest
{
  protected:
    void SetUp() override
    {
        VcTest::SetUp();
        // A refused registration initialises. Children are left to the end of
        // the test: their handler would log at any moment.
        const vc_reg reg = plain(AF_INET, 0, nullptr, 12);
        ASSERT_EQ(vc_service_reg(&reg), -1);
        signal(SIGCHLD, SIG_DFL);
        messages();
    }

    void TearDown() override
    {
        for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
            if (vc_child_at(ttyno) != nullptr) {
                vc_child_kill(vc_child_at(ttyno));
            }
        }
        while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
        }
        vc_srv *srv;
        VC_FOR_EACH_SERVICE(srv)
        {
            vc_srv_close_listener(srv);
        }
        VcTest::TearDown();
    }

    int deal(const tty_cmsg &record)
    {
        EXPECT_TRUE(give(record));
        messages();
        return vc_deal_msg(inetd_fd_);
    }

    static tty_cmsg record(uint32_t flag)
    {
        tty_cmsg msg = {};
        msg.vc_flag = flag;
        msg.pid = getpid();
        msg.tos = -1;
        return msg;
    }

    static tty_cmsg permit(int family, int port, int protocol)
    {
        tty_cmsg msg = record(0x008);
        msg.socktype = family;
        msg.port = port;
        msg.protocol = protocol;
        return msg;
    }

    tty_cmsg path_permit(const std::string &name, int protocol)
    {
        tty_cmsg msg = record(0x080);
        msg.socktype = AF_UNIX;
        msg.protocol = protocol;
        strcpy(msg.path, name.c_str());
        return msg;
    }

    tty_cmsg assignment(int ttyno, int sockfd, int port)
    {
        tty_cmsg msg = record(0x001);
        msg.ttyno = ttyno;
        msg.sockfd = sockfd;
        msg.socktype = AF_INET;
        msg.port = port;
        msg.accept_id = 1;
        return msg;
    }

    // One end of a pair, as an accepted connection.
    static int connection()
    {
        int ends[2] = {-1, -1};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        close(ends[1]);
        return ends[0];
    }

    // A session on the line, as an assignment makes it.
    void open_session(int ttyno, int port)
    {
        ASSERT_EQ(deal(assignment(ttyno, connection(), port)), 0);
        ASSERT_NE(vc_child_at(ttyno), nullptr);
        sent();
    }

    static bool is_open(int fd)
    {
        return fcntl(fd, F_GETFD) != -1;
    }

    // An assignment while the call fails: the inetd hears so often that the
    // line is clean, the last time for the connection.
    void expect_refusal(const char *call, int error, size_t answers)
    {
        const int fd = connection();
        fault::fail(call, 1, error);
        EXPECT_EQ(deal(assignment(300, fd, 23)), 0);
        fault::reset();
        EXPECT_FALSE(is_open(fd)) << call;
        EXPECT_EQ(vc_child_at(300), nullptr) << call;
        EXPECT_TRUE(logged("vc: client alloc fail\r\n")) << call;
        const auto records = sent();
        ASSERT_EQ(records.size(), answers) << call;
        for (const tty_cmsg &record : records) {
            EXPECT_EQ(record.vc_flag, 0x002u) << call;
        }
        EXPECT_EQ(records.back().sockfd, fd) << call;
    }

    // An entry of the accept list as vc_accept() makes it.
    static void wait_for_line(int fd, int accept_id)
    {
        auto *entry =
            static_cast<vc_accept_entry *>(malloc(sizeof(vc_accept_entry)));
        entry->fd = fd;
        entry->accept_id = accept_id;
        list_add_tail(&entry->link, &g_vc_accept_list);
        g_vc_accept_fd_num++;
    }

    static std::string number(int value)
    {
        return std::to_string(value);
    }

    std::string own_prefix() const
    {
        return "(vc:" + number(getpid()) + "):vc_deal_msg ";
    }
};
