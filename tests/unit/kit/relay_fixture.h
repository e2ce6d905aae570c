// A relay between a socket and a pseudo-terminal, on both of which the test
// sits.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "kit/relay.h"
#include "tests/support/fault.h"

class KitRelay : public testing::Test
{
  protected:
    void SetUp() override
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        peer = ends[0];
        connection = ends[1];
        master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(master, 0);
        ASSERT_EQ(grantpt(master), 0);
        ASSERT_EQ(unlockpt(master), 0);
        slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(slave, 0);
        termios modes;
        tcgetattr(slave, &modes);
        cfmakeraw(&modes);
        tcsetattr(slave, TCSANOW, &modes);
        fcntl(peer, F_SETFL, O_NONBLOCK);
        fcntl(slave, F_SETFL, O_NONBLOCK);
        fault::reset();
    }

    void TearDown() override
    {
        for (const int fd : {peer, connection, master, slave}) {
            if (fd >= 0) {
                close(fd);
            }
        }
        free(relay.state);
        fault::reset();
    }

    void begin(const kit_codec *codec = nullptr)
    {
        kit_relay_open(&relay, connection, master, codec, nullptr);
    }

    // Turns as the keeper does, until nothing moves any more.
    void turn()
    {
        for (int quiet = 0; quiet < 3;) {
            pollfd watched[2] = {};
            kit_relay_want(&relay, &watched[0], &watched[1]);
            const int ready = poll(watched, 2, 20);
            relay.moved = false;
            kit_relay_move(&relay, &watched[0], &watched[1]);
            quiet = ready > 0 && relay.moved ? 0 : quiet + 1;
        }
    }

    static std::string drain(int fd)
    {
        std::string text;
        char bytes[65536];
        ssize_t got;
        while ((got = read(fd, bytes, sizeof bytes)) > 0) {
            text.append(bytes, static_cast<size_t>(got));
        }
        return text;
    }

    static size_t fill(int fd)
    {
        const std::string bytes(4096, 'f');
        size_t total = 0;
        ssize_t put;
        while ((put = write(fd, bytes.data(), bytes.size())) > 0) {
            total += static_cast<size_t>(put);
        }
        return total;
    }

    kit_relay relay = {};
    int peer = -1;
    int connection = -1;
    int master = -1;
    int slave = -1;
};
