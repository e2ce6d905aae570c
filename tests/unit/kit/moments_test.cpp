// The begin of a session in the daemon, while descriptors are short.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <ttyline/kit.h>

#include "kit/bell.h"
#include "kit/moments.h"
#include "kit/table.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"

constexpr int LINE = 258;
constexpr int MANY = 200;

static int nothing(const kit_session *, void *)
{
    return 0;
}

static int g_received;

static void count_message(const kit_session *, const void *, size_t, void *)
{
    g_received++;
}

// A connection on the path of an offered service, and something that stands for
// the master of its terminal.
class KitMoments : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        // Kept for the life of the process.
        ASSERT_TRUE(kit_moments_prepare());
        runtime_test::SetUp();
        // What is offered stays: one of the process's life.
        static auto &name = *new std::string;
        static auto &service = *new kit_service{};
        name = path("/console");
        service.size = sizeof service;
        service.protocol = 7;
        service.path = name.c_str();
        service.function = nothing;
        service.received = count_message;
        g_received = 0;
        ASSERT_EQ(kit_offer(&service), 0) << kit_error();
        kit_moments_set(&moments);
        connect_client(name);
    }

    void TearDown() override
    {
        for (const int fd : {client, connection, master}) {
            if (fd >= 0) {
                close(fd);
            }
        }
        unlink(path("/console").c_str());
        runtime_test::TearDown();
    }

    void connect_client(const std::string &name)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, name.c_str(), name.size());
        auto *any = reinterpret_cast<sockaddr *>(&address);
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(listener, any, sizeof address), 0);
        ASSERT_EQ(listen(listener, 1), 0);
        client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(connect(client, any, sizeof address), 0);
        connection = accept(listener, nullptr, nullptr);
        close(listener);
        master = open("/dev/null", O_RDWR | O_CLOEXEC);
        ASSERT_GE(master, 0);
    }

    int alloc()
    {
        return moments.alloc_func(LINE, -1, connection, master);
    }

    // What the service does after a failure, and at the end.
    void end()
    {
        moments.kill_func(LINE);
        close(connection);
        close(master);
        connection = master = -1;
    }

    std::string told() const
    {
        char text[256];
        const ssize_t got = recv(client, text, sizeof text, MSG_DONTWAIT);
        return std::string(text, got > 0 ? static_cast<size_t>(got) : 0);
    }

    vc_reg moments = {};
    int client = -1;
    int connection = -1;
    int master = -1;
};

TEST_F(KitMoments, what_the_keeper_takes_over_is_closed_when_it_never_comes)
{
    ASSERT_EQ(alloc(), 0);
    ASSERT_NE(kit_entry_at(LINE), nullptr);
    end();
    EXPECT_EQ(kit_entry_at(LINE), nullptr);
    char byte;
    EXPECT_EQ(read(client, &byte, 1), 0);
}

// The bell can be heard before the channel, and the queue holds more than the
// loop takes in a turn.
TEST_F(KitMoments, all_that_a_function_has_sent_is_received_before_the_end)
{
    ASSERT_EQ(alloc(), 0);
    const int program = kit_entry_at(LINE)->program_channel;
    int sent = 0;
    while (sent < MANY &&
           kit_channel_put(program, CHANNEL_DATA, "m", 1, false)) {
        sent++;
    }
    ASSERT_EQ(sent, MANY);
    end();
    EXPECT_EQ(g_received, MANY);
}

TEST_F(KitMoments, nothing_is_posted_to_a_session_that_has_no_function_any_more)
{
    ASSERT_EQ(alloc(), 0);
    EXPECT_EQ(kit_post(LINE, "m", 1), 0);
    close(kit_entry_at(LINE)->program_channel);
    kit_entry_at(LINE)->program_channel = -1;
    EXPECT_EQ(moments.write_func(LINE), 0);
    EXPECT_EQ(kit_post(LINE, "m", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    // Nor does its end wake the loop again.
    pollfd watched = {master, POLLIN, 0};
    EXPECT_EQ(poll(&watched, 1, 0), 0);
    end();
}

// It would be taken for the end.
TEST_F(KitMoments, message_without_a_byte_is_refused)
{
    ASSERT_EQ(alloc(), 0);
    EXPECT_EQ(kit_post(LINE, "", 0), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_STREQ(kit_error(), "a message has 1 to 4096 bytes");
    EXPECT_EQ(kit_send(&kit_entry_at(LINE)->session, "", 0), -1);
    EXPECT_STREQ(kit_error(), "a message has 1 to 4096 bytes");
    end();
}

// What it asks of the machine before that may have no answer.
TEST_F(KitMoments, keeper_has_a_limit_until_its_program_runs)
{
    ASSERT_EQ(alloc(), 0);
    const kit_entry *entry = kit_entry_at(LINE);
    const int bell = dup(entry->keeper_bell);
    EXPECT_GT(entry->deadline_ms, 0);
    ASSERT_TRUE(kit_bell_say(bell, BELL_RUNS, 4711, ""));
    EXPECT_EQ(moments.read_func(LINE), 0);
    EXPECT_EQ(entry->session.keeper_pid, 4711);
    EXPECT_GT(entry->deadline_ms, 0);
    ASSERT_TRUE(kit_bell_say(bell, BELL_TERMINAL, 4712, "/dev/pts/99"));
    EXPECT_EQ(moments.read_func(LINE), 0);
    EXPECT_EQ(entry->session.pid, 0);
    EXPECT_GT(entry->deadline_ms, 0);
    ASSERT_TRUE(kit_bell_say(bell, BELL_PROGRAM, 0, ""));
    EXPECT_EQ(moments.read_func(LINE), 0);
    EXPECT_EQ(entry->session.pid, 4712);
    EXPECT_STREQ(entry->session.device, "/dev/pts/99");
    EXPECT_EQ(entry->deadline_ms, 0);
    close(bell);
    EXPECT_EQ(moments.read_func(LINE), -1);
    end();
}

// Processes are ended by these numbers.
TEST_F(KitMoments, keeper_says_once_and_in_order_what_it_is)
{
    ASSERT_EQ(alloc(), 0);
    const kit_entry *entry = kit_entry_at(LINE);
    const int bell = dup(entry->keeper_bell);
    for (const int number : {4711, 1}) {
        ASSERT_TRUE(kit_bell_say(bell, BELL_RUNS, number, ""));
        ASSERT_TRUE(kit_bell_say(bell, BELL_TERMINAL, number + 1, "/dev/tty"));
        ASSERT_TRUE(kit_bell_say(bell, BELL_PROGRAM, number, ""));
        ASSERT_TRUE(kit_bell_say(bell, BELL_USER, number, "mallory"));
    }
    EXPECT_EQ(moments.read_func(LINE), 0);
    EXPECT_EQ(entry->session.keeper_pid, 4711);
    EXPECT_EQ(entry->session.pid, 4712);
    EXPECT_STREQ(entry->user, "");
    close(bell);
    EXPECT_EQ(moments.read_func(LINE), -1);
    end();
}

// Two numbers to keep, two pairs: whichever of them is not to be had, the
// client is told so and nothing stays.
// Once taken over it may speak for as long as it is heard.
TEST_F(KitMoments, keeper_that_does_not_stop_speaking_leaves_others_their_turn)
{
    bell_message message;
    int said = 0;

    ASSERT_EQ(alloc(), 0);
    const kit_entry *entry = kit_entry_at(LINE);
    const int bell = dup(entry->keeper_bell);
    while (kit_bell_say(bell, BELL_RUNS, 4711, "")) {
        said++;
    }
    ASSERT_GT(said, 64);
    EXPECT_EQ(moments.read_func(LINE), 0);
    EXPECT_EQ(kit_bell_hear(entry->bell, &message), 1);
    close(bell);
    end();
}

TEST_F(KitMoments, client_is_told_when_a_number_cannot_be_kept)
{
    fault_row("on_alloc", "fcntl", "EMFILE", "-1", "",
              "nothing: the client is told in one line");
    fault::fail("fcntl", 2, EMFILE);
    EXPECT_EQ(alloc(), -1);
    EXPECT_EQ(kit_entry_at(LINE), nullptr);
    EXPECT_EQ(told(), "ttyline: no resources for a session\r\n");
    end();
}

TEST_F(KitMoments, client_is_told_when_there_is_no_pair_for_the_bell)
{
    fault_row("on_alloc", "socketpair", "EMFILE", "-1", "",
              "nothing: the client is told in one line");
    fault::fail("socketpair", 1, EMFILE);
    EXPECT_EQ(alloc(), -1);
    EXPECT_EQ(told(), "ttyline: no resources for a session\r\n");
    end();
}

// By then the bell lies over the connection's number.
TEST_F(KitMoments, client_is_told_when_there_is_no_pair_for_the_channel)
{
    fault_row("on_alloc", "socketpair", "EMFILE", "-1", "",
              "nothing: the client is told in one line");
    fault::fail("socketpair", 2, EMFILE);
    EXPECT_EQ(alloc(), -1);
    EXPECT_EQ(kit_entry_at(LINE), nullptr);
    EXPECT_EQ(told(), "ttyline: no resources for a session\r\n");
    end();
}

// Then its client is still behind the number that the service knows.
TEST_F(KitMoments, client_is_told_when_its_own_number_cannot_be_kept)
{
    fault_row("on_alloc", "fcntl", "EMFILE", "-1", "",
              "nothing: the client is told in one line");
    fault_row("on_alloc", "dup3", "EBUSY", "-1", "",
              "nothing: the client is told in one line");
    fault::fail("fcntl", 1, EMFILE);
    EXPECT_EQ(alloc(), -1);
    EXPECT_EQ(told(), "ttyline: no resources for a session\r\n");
    fault::reset();
    fault::fail("dup3", 1, EBUSY);
    EXPECT_EQ(alloc(), -1);
    EXPECT_EQ(kit_entry_at(LINE), nullptr);
    EXPECT_EQ(told(), "ttyline: no resources for a session\r\n");
    end();
}

TEST_F(KitMoments, connection_to_nowhere_is_closed_without_a_word)
{
    fault_row("on_alloc", "getsockname", "ENOBUFS", "-1", "",
              "nothing: the connection is closed");
    fault::fail("getsockname", 1, ENOBUFS, fault::ALWAYS);
    EXPECT_EQ(alloc(), -1);
    EXPECT_EQ(kit_entry_at(LINE), nullptr);
    EXPECT_EQ(told(), "");
    end();
}

// A service whose data the session service does not move.
TEST_F(KitMoments, client_is_told_when_its_session_cannot_be_heard)
{
    fault_row("on_alloc", "epoll_ctl", "ENOSPC", "-1", "",
              "nothing: the client is told in one line");
    const_cast<kit_service *>(kit_first_node()->service)->protocol = 4;
    fault::fail("epoll_ctl", 1, ENOSPC);
    EXPECT_EQ(alloc(), -1);
    EXPECT_EQ(kit_entry_at(LINE), nullptr);
    EXPECT_EQ(told(), "ttyline: no resources for a session\r\n");
    end();
}

// The service asks for every line that it has.
TEST_F(KitMoments, line_without_a_session_has_no_moments)
{
    EXPECT_EQ(moments.init_func(LINE), -1);
    EXPECT_EQ(moments.read_func(LINE), -1);
    EXPECT_EQ(moments.write_func(LINE), -1);
    EXPECT_EQ(moments.kill_func(LINE), 0);
    EXPECT_EQ(moments.shell_func(LINE, "/dev/pts/99"), -1);
    ASSERT_EQ(alloc(), 0);
    EXPECT_EQ(moments.init_func(LINE), 0);
    end();
}

// From a keeper or a function of another version.
TEST_F(KitMoments, message_of_an_unknown_kind_changes_nothing)
{
    ASSERT_EQ(alloc(), 0);
    const kit_entry *entry = kit_entry_at(LINE);
    ASSERT_TRUE(
        kit_bell_say(entry->keeper_bell, static_cast<bell_kind>(99), 1, "x"));
    EXPECT_EQ(moments.read_func(LINE), 0);
    EXPECT_EQ(entry->session.keeper_pid, 0);
    EXPECT_STREQ(entry->session.user, "");
    ASSERT_TRUE(kit_channel_put(entry->program_channel, '?', "x", 1, false));
    EXPECT_EQ(moments.write_func(LINE), 0);
    EXPECT_EQ(g_received, 0);
    EXPECT_STREQ(entry->session.user, "");
    end();
}

TEST_F(KitMoments, session_without_memory_is_none)
{
    fault_row("on_alloc", "calloc", "ENOMEM", "-1", "",
              "nothing: the connection is closed");
    fault::fail("calloc", 1, ENOMEM);
    EXPECT_EQ(alloc(), -1);
    EXPECT_EQ(kit_entry_at(LINE), nullptr);
    end();
}
