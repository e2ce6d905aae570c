// An in-path session: a client and a terminal that the test plays.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/inpath.h"

// A client's connection and a terminal's master, both played by socket pairs.
class InpathTest : public VcTest
{
  protected:
    using texts = std::vector<std::string>;

    void SetUp() override
    {
        VcTest::SetUp();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, client_),
                  0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, terminal_),
                  0);
        sockfd_ = client_[0];
        master_fd_ = terminal_[0];
    }

    void TearDown() override
    {
        fault::reset();
        for (const int ttyno : {300, 301}) {
            vc_inpath_kill_func(ttyno);
        }
        for (const int fd :
             {client_[0], client_[1], terminal_[0], terminal_[1]}) {
            close(fd);
        }
        VcTest::TearDown();
    }

    int alloc(int ttyno)
    {
        return vc_inpath_alloc_func(ttyno, inetd_fd_, sockfd_, master_fd_);
    }

    static int sessions()
    {
        int count = 0;
        for (const vc_list *link = g_vc_inpath_list.next;
             link != &g_vc_inpath_list; link = link->next) {
            count++;
        }
        return count;
    }

    static bool type(int fd, const std::string &text)
    {
        return send(fd, text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }

    static std::string arrived(int fd)
    {
        char text[8192];
        const ssize_t got = recv(fd, text, sizeof text, MSG_DONTWAIT);
        return got > 0 ? std::string(text, static_cast<size_t>(got)) : "";
    }

    static bool nonblocking(int fd)
    {
        return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
    }

    // Runs the shell callback in a child; its messages and exit status.
    texts shell(int ttyno, const char *device, int *status,
                void (*prepare)() = nullptr)
    {
        const pid_t pid = fork();
        if (pid == 0) {
            if (prepare != nullptr) {
                prepare();
            }
            vc_inpath_shell_func(ttyno, device);
        }
        *status = support::wait_child(pid);
        texts found;
        const std::string own = " " + number(pid) + ":";
        for (const auto &line :
             support::lines_of(path("/mng/tty/.vc_dump.txt"))) {
            const std::string text = support::without_stamp(line);
            if (text.compare(0, own.size(), own) == 0) {
                found.push_back(text.substr(own.size()));
            }
        }
        return found;
    }

    // Puts a program that writes down its arguments in front of PATH.
    void install_console(const std::string &body)
    {
        const std::string program = path("/rl-con");
        support::spill(program, "#!/bin/sh\n" + body);
        ASSERT_EQ(chmod(program.c_str(), 0755), 0);
        setenv("PATH", (runtime_dir + ":/usr/bin:/bin").c_str(), 1);
    }

    int client_[2] = {-1, -1};
    int terminal_[2] = {-1, -1};
    int sockfd_ = -1;
    int master_fd_ = -1;
};
