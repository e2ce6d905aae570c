// The loop in a process of its own, and the inetd's socket in the test.
#pragma once

#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/session.h"

class LoopTest : public VcTest
{
  protected:
    void SetUp() override
    {
        sockaddr_un address = {};

        VcTest::SetUp();
        ASSERT_EQ(mkdir(path("/mng/tty/inetd").c_str(), 0777), 0);
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path("/mng/tty/inetd/.qv_inetd").c_str());
        inetd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(inetd_, reinterpret_cast<sockaddr *>(&address),
                       sizeof address),
                  0);
        ASSERT_EQ(listen(inetd_, 16), 0);
    }

    void TearDown() override
    {
        stop_loop();
        close(inetd_);
        VcTest::TearDown();
    }

    void stop_loop()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }

    // Gives a process with two services to the loop.
    void run_loop(const std::function<void()> &prepare)
    {
        pid_ = fork();
        if (pid_ == 0) {
            const vc_reg first = plain(AF_INET, 23, nullptr, 6);
            const vc_reg second = plain(AF_INET, 24, nullptr, 6);
            vc_service_reg(&first);
            vc_service_reg(&second);
            prepare();
            vc_service_start();
            _exit(9);
        }
    }

    std::vector<std::string> loop_messages() const
    {
        std::vector<std::string> texts;
        const std::string own = " " + std::to_string(pid_) + ":";
        for (const std::string &line :
             support::lines_of(path("/mng/tty/.vc_dump.txt"))) {
            const std::string text = support::without_stamp(line);
            if (text.compare(0, own.size(), own) == 0) {
                texts.push_back(text.substr(own.size()));
            }
        }
        return texts;
    }

    bool says(const std::string &text, int times = 1) const
    {
        return support::wait_until([&] {
            const auto texts = loop_messages();
            return std::count(texts.begin(), texts.end(), text) >= times;
        });
    }

    std::string after(const std::string &start) const
    {
        const auto texts = loop_messages();
        const auto found = std::find_if(texts.begin(), texts.end(),
                                        [&](const std::string &text) {
                                            return text.find(start) == 0;
                                        });
        return found == texts.end() || found + 1 == texts.end() ? ""
                                                                : *(found + 1);
    }

    int inetd_ = -1;
    pid_t pid_ = -1;
};

inline void note_pause()
{
    vc_debug_msg("test: pause\n");
}
