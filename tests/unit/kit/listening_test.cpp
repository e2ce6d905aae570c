// Services that should listen, as far as the kernel tells of it.
#include "kit/listening.h"

#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <ttyline/kit.h>
#include <ttyline/vc.h>

#include "kit/service.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"

static int nothing(const kit_session *, void *)
{
    return 0;
}

static std::string g_log;

static ssize_t log_line(int, const void *text, size_t size, int,
                        const sockaddr *, socklen_t)
{
    g_log.append(static_cast<const char *>(text), size);
    return static_cast<ssize_t>(size);
}

// A service on a port of both families, and its listeners.
class KitListeners : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        static kit_service kept;
        sockaddr_in6 address = {};
        socklen_t length = sizeof address;
        auto *any = reinterpret_cast<sockaddr *>(&address);
        const int only = 1;
        address.sin6_family = AF_INET6;
        six = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setsockopt(six, IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only);
        ASSERT_EQ(bind(six, any, length), 0);
        getsockname(six, any, &length);
        sockaddr_in inet = {};
        inet.sin_family = AF_INET;
        inet.sin_port = address.sin6_port;
        four = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(four, reinterpret_cast<sockaddr *>(&inet), sizeof inet),
                  0);
        kept.size = sizeof kept;
        kept.protocol = 6;
        kept.port = ntohs(address.sin6_port);
        kept.function = nothing;
        ASSERT_EQ(kit_offer(&kept), 0) << kit_error();
        node = kit_node_of(&kept);
        // As they are beside a running loop with an inetd.
        node->registered = true;
        g_vc_tty_socket = four;
        REPLACE_CALL(sendto, log_line);
        fault::replacing(true);
        g_log.clear();
    }

    void TearDown() override
    {
        fault::replacing(false);
        g_vc_tty_socket = -1;
        close(four);
        close(six);
        runtime_test::TearDown();
    }

    // How often it is announced again in so many looks.
    int announced(int looks = 2)
    {
        g_log.clear();
        for (int i = 0; i < looks; i++) {
            now = kit_listening_look(now);
        }
        int count = 0;
        const std::string line = "not-listening protocol=6";
        for (size_t at = 0; (at = g_log.find(line, at)) != std::string::npos;
             at++) {
            count++;
        }
        return count;
    }

    void listen_on_both() const
    {
        ASSERT_EQ(listen(four, 1), 0);
        ASSERT_EQ(listen(six, 1), 0);
    }

    kit_node *node = nullptr;
    int64_t now = 1000000;
    int four = -1;
    int six = -1;
};

TEST_F(KitListeners, service_that_listens_is_left_alone)
{
    listen_on_both();
    EXPECT_EQ(announced(5), 0);
}

TEST_F(KitListeners, service_without_one_of_its_families_is_announced_again)
{
    // A bound socket is no listener.
    ASSERT_EQ(listen(four, 1), 0);
    EXPECT_EQ(announced(1), 0) << "its permit may be under way";
    EXPECT_EQ(announced(1), 1);
    // And not for ever.
    EXPECT_EQ(announced(20), 4);
    ASSERT_EQ(listen(six, 1), 0);
    EXPECT_EQ(announced(2), 0);
    EXPECT_EQ(node->listening, KIT_IPV4 | KIT_IPV6);
}

TEST_F(KitListeners, service_that_was_stopped_or_is_not_registered_need_not)
{
    node->stopped = true;
    EXPECT_EQ(announced(5), 0);
    node->stopped = false;
    node->registered = false;
    EXPECT_EQ(announced(5), 0);
}

TEST_F(KitListeners, nothing_is_asked_for_without_an_inetd)
{
    g_vc_tty_socket = -1;
    EXPECT_EQ(announced(5), 0);
}

TEST_F(KitListeners, nothing_is_looked_at_before_its_time)
{
    EXPECT_EQ(announced(2), 1);
    const int asked = fault::watch("getsockopt");
    EXPECT_EQ(kit_listening_look(now - 1), now);
    EXPECT_EQ(fault::seen(asked), 0);
}

// A request too many does no harm to a service that listens.
TEST_F(KitListeners, listener_that_cannot_be_asked_does_not_count)
{
    fault_row("kit_listening_look", "getsockopt", "ENOBUFS",
              "when to look again", "not-listening protocol=%d",
              "the service is announced again, five times at most");
    fault_row("kit_listening_look", "getsockname", "ENOBUFS",
              "when to look again", "not-listening protocol=%d",
              "the service is announced again, five times at most");
    listen_on_both();
    for (const char *call : {"getsockopt", "getsockname"}) {
        fault::fail(call, 1, ENOBUFS, fault::ALWAYS, fault::only_fd(six));
        EXPECT_EQ(announced(20), 5) << call;
        fault::reset();
        EXPECT_EQ(announced(2), 0) << call;
    }
}
