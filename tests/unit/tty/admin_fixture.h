// The line administration daemon, played by a test.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/descriptors.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/tty_fixture.h"

class AdminTest : public tty_test
{
  protected:
    void SetUp() override
    {
        tty_test::SetUp();
        before_ = support::open_descriptors();
    }

    // The library keeps its one connection for the life of the process; here
    // it goes, so that any other descriptor left open is noticed.
    void TearDown() override
    {
        setenv("TMPDIR", runtime_dir.c_str(), 1);
        stop();
        drop_connection();
        const auto kept = kept_descriptors();
        EXPECT_LE(kept.size(), 1u);
        for (const std::string &one : kept) {
            EXPECT_NE(one.find("-> socket:"), std::string::npos) << one;
            close(std::stoi(one));
        }
        tty_test::TearDown();
    }

    // Moves the runtime directory to one below, in which the path of this name
    // has the given length; returns it.
    std::string move_runtime_directory(const std::string &name, size_t length)
    {
        const std::string root =
            path("/") +
            std::string(length - path("/").size() - name.size(), 'd');
        for (const char *part : {"", "/mng", "/mng/tty"}) {
            mkdir((root + part).c_str(), 0777);
        }
        setenv("TMPDIR", root.c_str(), 1);
        return root;
    }

    std::vector<std::string> kept_descriptors() const
    {
        std::vector<std::string> kept;
        for (const std::string &one : support::open_descriptors()) {
            if (std::find(before_.begin(), before_.end(), one) ==
                before_.end()) {
                kept.push_back(one);
            }
        }
        return kept;
    }

    void start()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        ASSERT_LT(path("/mng/tty/.tty_rl").size(), sizeof address.sun_path);
        strcpy(address.sun_path, path("/mng/tty/.tty_rl").c_str());
        unlink(address.sun_path);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address),
                       sizeof address),
                  0);
        ASSERT_EQ(listen(listener_, 16), 0);
    }

    // Nobody listens any more; the file stays.
    void stop()
    {
        if (listener_ >= 0) {
            close(listener_);
        }
        listener_ = -1;
    }

    // Takes the connection that a request has made.
    bool take()
    {
        drop_connection();
        pollfd ready = {listener_, POLLIN, 0};
        if (poll(&ready, 1, 10000) == 1) {
            connection_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        }
        return connection_ >= 0;
    }

    bool someone_waits() const
    {
        pollfd ready = {listener_, POLLIN, 0};
        return poll(&ready, 1, 0) == 1;
    }

    void drop_connection()
    {
        if (connection_ >= 0) {
            close(connection_);
        }
        connection_ = -1;
    }

    // Everything sent so far, in hexadecimal.
    std::string received() const
    {
        std::string text;
        unsigned char byte;
        while (recv(connection_, &byte, 1, MSG_DONTWAIT) == 1) {
            char digits[4];
            (void)snprintf(digits, sizeof digits, "%02x", byte);
            text += (text.empty() ? "" : " ") + std::string(digits);
        }
        return text;
    }

    static std::string connect_failed(int error)
    {
        return "ttylib: sock connect fail, err[" + std::to_string(error) +
               "]:" + strerror(error) + "\n";
    }

    static std::string send_failed(int error)
    {
        return "ttylib: msg send fail, err[" + std::to_string(error) +
               "]:" + strerror(error) + "\n";
    }

    int listener_ = -1;
    int connection_ = -1;
    std::vector<std::string> before_;
};
