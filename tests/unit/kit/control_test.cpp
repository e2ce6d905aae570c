// What slow clients of the control socket may take, on a clock of the test's.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/control.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
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
            next = 0;
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

    // What "help" on a fresh connection gives.
    std::string help()
    {
        const int client = connect_client();
        ask(client, "help\n");
        serve();
        return taken(client);
    }

    std::string name;
    kit_daemon daemon = {};
    std::vector<int> clients;
    int64_t next = 0; // when the last turn wants another one
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

// On a clock of the test's everybody has come at once.
TEST_F(KitControlSocket, nobody_loses_his_place_within_a_second)
{
    for (size_t i = 0; i < KIT_CONTROL_CLIENTS; i++) {
        connect_client();
    }
    serve();
    const int another = connect_client();
    ask(another, "help\n");
    serve();
    EXPECT_EQ(taken(another), "");
    // Not by the next event, which is there already.
    EXPECT_EQ(next, g_seconds * 1000 + 100);
    for (const int client : clients) {
        EXPECT_FALSE(dropped(client));
    }
    g_seconds += 1;
    serve();
    EXPECT_NE(taken(another).find("ok\n"), std::string::npos);
}

TEST_F(KitControlSocket, place_goes_to_whoever_has_had_his_longest)
{
    connect_client();
    serve();
    g_seconds += 1;
    for (size_t i = 1; i < KIT_CONTROL_CLIENTS; i++) {
        connect_client();
    }
    serve();
    g_seconds += 1;
    // The first one has just had an answer.
    ask(clients[0], "help\n");
    serve();
    EXPECT_NE(taken(clients[0]), "");
    g_seconds += 1;
    EXPECT_NE(help(), "");
    EXPECT_FALSE(dropped(clients[0]));
    EXPECT_TRUE(dropped(clients[1]));
}

TEST_F(KitControlSocket, client_without_a_descriptor_waits_and_is_served)
{
    fault_row("kit_control_serve", "accept4", "EMFILE", "nothing", "",
              "the client waits a tenth of a second in the queue");
    const int client = connect_client();
    ask(client, "help\n");
    fault::fail("accept4", 1, EMFILE);
    serve();
    EXPECT_EQ(taken(client), "");
    EXPECT_EQ(next, g_seconds * 1000 + 100);
    g_seconds += 1;
    serve();
    EXPECT_NE(taken(client).find("ok\n"), std::string::npos);
}

TEST_F(KitControlSocket, interrupted_client_is_served_at_the_next_turn)
{
    fault_row("kit_control_serve", "recv", "EINTR", "nothing", "",
              "the question is read at the next turn");
    fault_row("kit_control_serve", "send", "EINTR", "nothing", "",
              "the answer is sent at the next turn");
    for (const char *call : {"recv", "send"}) {
        for (const int error : {EINTR, EAGAIN}) {
            const int client = connect_client();
            ask(client, "help\n");
            fault::fail(call, 1, error, 3);
            serve();
            fault::reset();
            EXPECT_NE(taken(client).find("ok\n"), std::string::npos) << call;
            EXPECT_FALSE(dropped(client));
        }
    }
}

TEST_F(KitControlSocket, client_whose_connection_breaks_is_dropped)
{
    fault_row("kit_control_serve", "recv", "ECONNRESET", "nothing", "",
              "the client is dropped");
    fault_row("kit_control_serve", "send", "EPIPE", "nothing", "",
              "the client is dropped");
    for (const char *call : {"recv", "send"}) {
        const int client = connect_client();
        serve();
        ask(client, "help\n");
        fault::fail(call, 1, call[0] == 'r' ? ECONNRESET : EPIPE,
                    fault::ALWAYS);
        serve();
        fault::reset();
        EXPECT_EQ(taken(client), "") << call;
        EXPECT_TRUE(dropped(client)) << call;
        EXPECT_NE(help(), "");
    }
}

// A line that fills the buffer to its last byte is one when its end comes.
TEST_F(KitControlSocket, too_long_a_line_is_told_once_and_thrown_away)
{
    const int client = connect_client();
    for (int i = 0; i < 3; i++) {
        ask(client, std::string(512, 'x'));
        serve();
    }
    EXPECT_EQ(taken(client), "error: line too long\n");
    ask(client, "rest of it\nhelp\n");
    serve();
    const std::string text = taken(client);
    EXPECT_EQ(text.find("error"), std::string::npos) << text;
    EXPECT_NE(text.find("\nok\n"), std::string::npos) << text;
}

// ---- Making the socket. ----

class KitControlOpen : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        name = path("/control");
        daemon.size = sizeof daemon;
        daemon.control = name.c_str();
    }

    // Why it cannot be had; nothing stays.
    std::string refusal()
    {
        const int result = kit_control_open(&daemon);
        const std::string reason = result == 0 ? "opened" : kit_error();
        kit_control_end();
        return reason;
    }

    void leave_stale() const
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(
            bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address),
            0);
        close(fd);
    }

    std::string name;
    kit_daemon daemon = {};
};

TEST_F(KitControlOpen, path_has_one_to_107_characters)
{
    for (const size_t length : {size_t{0}, size_t{108}}) {
        const std::string wrong(length, 'p');
        daemon.control = wrong.c_str();
        EXPECT_EQ(refusal(),
                  "'" + wrong + "' is empty or too long for a socket's path");
    }
}

TEST_F(KitControlOpen, place_that_cannot_be_looked_at_is_said)
{
    fault_row("kit_control_open", "lstat", "EACCES", "-1", "", "");
    fault::fail("lstat", 1, EACCES);
    EXPECT_EQ(refusal(), name + ": Permission denied");
}

TEST_F(KitControlOpen, socket_of_a_dead_daemon_is_replaced_if_it_can_be)
{
    fault_row("kit_control_open", "unlink", "EACCES", "-1", "",
              "the dead daemon's socket");
    leave_stale();
    fault::fail("unlink", 1, EACCES);
    EXPECT_EQ(refusal(), name + ": Permission denied");
    EXPECT_TRUE(support::exists(name));
    fault::reset();
    EXPECT_EQ(refusal(), "opened");
    EXPECT_FALSE(support::exists(name));
}

TEST_F(KitControlOpen, what_cannot_be_made_leaves_nothing_behind)
{
    fault_row("kit_control_open", "bind", "ENOSPC", "-1", "", "nothing");
    fault_row("kit_control_open", "chmod", "EPERM", "-1", "", "nothing");
    fault_row("kit_control_open", "listen", "EADDRINUSE", "-1", "", "nothing");
    fault_row("kit_control_open", "socket", "EMFILE", "-1", "", "nothing");
    const struct {
        const char *call;
        int error;
        std::string reason;
    } cases[] = {
        {"bind", ENOSPC, name + ": No space left on device"},
        {"chmod", EPERM, name + ": Operation not permitted"},
        {"listen", EADDRINUSE, name + ": Address already in use"},
        {"socket", EMFILE, "no socket: Too many open files"},
    };
    for (const auto &one : cases) {
        fault::fail(one.call, 1, one.error);
        EXPECT_EQ(refusal(), one.reason);
        EXPECT_FALSE(support::exists(name)) << one.call;
        fault::reset();
    }
    EXPECT_EQ(refusal(), "opened");
}

// Another daemon's, by now.
TEST_F(KitControlOpen, socket_that_was_replaced_is_not_taken_away)
{
    ASSERT_EQ(kit_control_open(&daemon), 0);
    ASSERT_EQ(rename(name.c_str(), (name + ".old").c_str()), 0);
    leave_stale();
    kit_control_end();
    EXPECT_TRUE(support::exists(name));
    // One that is gone is none, and a second end is for nothing.
    ASSERT_EQ(kit_control_open(&daemon), 0);
    ASSERT_EQ(unlink(name.c_str()), 0);
    kit_control_end();
    kit_control_end();
    EXPECT_FALSE(support::exists(name));
}

// It would unlink what it does not know to be its own.
TEST_F(KitControlOpen, socket_that_could_not_be_noted_is_left)
{
    fault_row("kit_control_open", "lstat", "EIO", "0", "",
              "the socket, after the daemon's end");
    fault::fail("lstat", 2, EIO);
    EXPECT_EQ(refusal(), "opened");
    EXPECT_TRUE(support::exists(name));
}
