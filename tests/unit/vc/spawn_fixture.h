// Sessions with a process of their own, seen from the daemon and, by their
// messages and what they leave in the runtime directory, from inside.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "tests/support/fault.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/session.h"
#include "vc/spawn.h"
#include "vc/teardown.h"

// A service on port 23, connections to it and the sessions that they become.
class SpawnFixture : public VcTest
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

    vc_child *start(int ttyno)
    {
        int sockfd = connection();
        return vc_child_alloc(ttyno, &sockfd, 23, "", inetd_fd_);
    }

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

    // What a shell callback wrote into the runtime directory.
    std::string result() const
    {
        return support::slurp(path("/result"));
    }
};

inline void report(const std::string &text)
{
    std::ofstream(std::string(getenv("TMPDIR")) + "/result") << text;
}
