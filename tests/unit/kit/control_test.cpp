// What slow clients of the control socket may take, on a clock of the test's.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/control.h"
#include "tests/support/fault.h"
#include "tests/support/runtime.h"

static int64_t g_seconds;

static int told_time(clockid_t, struct timespec *now)
{
    *now = {g_seconds, 0};
    return 0;
}

class KitControlSocket : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        g_seconds = 1000;
        REPLACE_CALL(clock_gettime, told_time);
        fault::replacing(true);
        name = path("/control");
        daemon.size = sizeof daemon;
        daemon.control = name.c_str();
        ASSERT_EQ(kit_control_open(&daemon), 0) << kit_error();
    }

    void TearDown() override
    {
        fault::replacing(false);
        for (const int fd : clients) {
            close(fd);
        }
        g_seconds += 1000;
        serve();
        kit_control_end();
        EXPECT_FALSE(support::exists(name));
        runtime_test::TearDown();
    }

    int connect_client()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof address.sun_path, "%s", name.c_str());
        const int fd =
            socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        EXPECT_EQ(
            connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address),
            0);
        clients.push_back(fd);
        return fd;
    }

    // Turns as the warden does, until nothing is left to do.
    void serve()
    {
        for (int i = 0; i < 100; i++) {
            pollfd watched[KIT_CONTROL_DESCRIPTORS] = {};
            int64_t next = 0;
            const size_t count = kit_control_watch(watched, &next);
            const int ready = poll(watched, count, 0);
            kit_control_serve(watched, count);
            if (ready == 0) {
                return;
            }
        }
    }

    static std::string taken(int fd, size_t most = 1 << 20)
    {
        std::string text(most, '\0');
        const ssize_t got = recv(fd, text.data(), most, MSG_DONTWAIT);
        text.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return text;
    }

    static bool dropped(int fd)
    {
        char byte;
        pollfd watched = {fd, POLLIN, 0};
        return poll(&watched, 1, 0) == 1 &&
               recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    }

    static void ask(int fd, const std::string &line)
    {
        send(fd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    std::string name;
    kit_daemon daemon = {};
    std::vector<int> clients;
};

TEST_F(KitControlSocket, client_that_says_nothing_is_dropped)
{
    const int client = connect_client();
    serve();
    g_seconds += 9;
    serve();
    EXPECT_FALSE(dropped(client));
    g_seconds += 1;
    serve();
    EXPECT_TRUE(dropped(client));
}

TEST_F(KitControlSocket, client_that_asks_gets_new_time)
{
    const int client = connect_client();
    for (int i = 0; i < 5; i++) {
        serve();
        g_seconds += 9;
        ask(client, "help\n");
        serve();
        EXPECT_NE(taken(client).find("ok\n"), std::string::npos);
    }
}

// More of them than the kernel takes at once.
static const size_t MANY_LINES = 3000;

TEST_F(KitControlSocket, client_that_reads_slowly_gets_its_answers)
{
    const int client = connect_client();
    std::string lines;
    for (size_t i = 0; i < MANY_LINES; i++) {
        lines += "help\n";
    }
    size_t asked = 0;
    size_t answers = 0;
    for (int i = 0; i < 100 && answers < MANY_LINES; i++) {
        const ssize_t sent = send(client, lines.data() + asked,
                                  lines.size() - asked, MSG_DONTWAIT);
        asked += sent > 0 ? static_cast<size_t>(sent) : 0;
        serve();
        g_seconds += 8;
        const std::string text = taken(client, 1 << 20);
        for (size_t at = 0; (at = text.find("\nok\n", at)) != std::string::npos;
             at += 4) {
            answers++;
        }
        serve();
        ASSERT_FALSE(dropped(client)) << i;
    }
    EXPECT_GT(answers, 100u);
}

TEST_F(KitControlSocket, client_that_does_not_read_its_answers_is_dropped)
{
    const int client = connect_client();
    for (int i = 0; i < 2000; i++) {
        ask(client, "help\n");
        serve();
    }
    g_seconds += 10;
    serve();
    std::string text;
    while (!(text = taken(client)).empty()) {
    }
    EXPECT_TRUE(dropped(client));
}

TEST_F(KitControlSocket, client_that_says_nothing_makes_room_for_another)
{
    for (size_t i = 0; i < KIT_CONTROL_CLIENTS; i++) {
        connect_client();
    }
    serve();
    g_seconds += 2;
    const int another = connect_client();
    ask(another, "help\n");
    serve();
    EXPECT_NE(taken(another).find("ok\n"), std::string::npos);
    EXPECT_TRUE(dropped(clients[0]));
    EXPECT_FALSE(dropped(clients[1]));
}
