// Services that are announced, and permits for their listeners.
#pragma once

#include <sys/socket.h>

#include "tests/unit/vc/vc_fixture.h"

class ListenTest : public VcTest
{
  protected:
    void SetUp() override
    {
        VcTest::SetUp();
        // A refused registration initialises and leaves nothing behind.
        const vc_reg reg = plain(AF_INET, 0, nullptr, 12);
        ASSERT_EQ(vc_service_reg(&reg), -1);
        messages();
    }

    static tty_cmsg permit(int family, int port)
    {
        tty_cmsg msg = {};
        msg.socktype = family;
        msg.port = port;
        msg.tos = -1;
        return msg;
    }

    // Whether the messages are these, apart from the one option that not
    // every kernel knows.
    void expect_messages(const std::vector<std::string> &expected)
    {
        std::vector<std::string> texts;
        for (const std::string &text : messages()) {
            if (text.find("vrf incoming") == std::string::npos) {
                texts.push_back(text);
            }
        }
        EXPECT_EQ(texts, expected);
    }
};
