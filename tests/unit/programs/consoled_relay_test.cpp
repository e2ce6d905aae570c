#include "programs/consoled/relay.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

/* That of the buffers, which the daemon asks for without an exception. */
static bool g_no_memory;

void *operator new[](size_t size, const std::nothrow_t &) noexcept
{
    return g_no_memory ? nullptr : malloc(size);
}

void operator delete[](void *memory) noexcept
{
    free(memory);
}

void operator delete[](void *memory, size_t) noexcept
{
    free(memory);
}

void *operator new[](size_t size)
{
    if (void *memory = malloc(size)) {
        return memory;
    }
    abort();
}

namespace
{

using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;

milliseconds since(clock_type::time_point start)
{
    return std::chrono::duration_cast<milliseconds>(clock_type::now() - start);
}

/* A pair of connected stream sockets: the relay's end and the test's end. */
struct link {
    int relay_end = -1;
    int test_end = -1;

    link()
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
            relay_end = ends[0];
            test_end = ends[1];
            int small = 4096;
            setsockopt(relay_end, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        }
    }
    ~link()
    {
        close(relay_end);
        close_test_end();
    }
    link(const link &) = delete;
    link &operator=(const link &) = delete;

    void close_test_end()
    {
        if (test_end >= 0) {
            close(test_end);
            test_end = -1;
        }
    }
    void send(const std::string &text) const
    {
        ASSERT_EQ(ssize_t(text.size()),
                  ::send(test_end, text.data(), text.size(), MSG_DONTWAIT));
    }
    std::string receive(size_t most = 1 << 20) const
    {
        std::string text(most, '\0');
        ssize_t n = recv(test_end, &text[0], most, MSG_DONTWAIT);
        text.resize(n > 0 ? size_t(n) : 0);
        return text;
    }
};

class Relay : public testing::Test
{
  protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
    }
    int step()
    {
        return relay_step(r, source.relay_end, sink.relay_end);
    }
    /* Afterwards the sink takes nothing more. */
    static void block(const link &l)
    {
        std::string junk(65536, '#');
        while (send(l.relay_end, junk.data(), junk.size(), MSG_DONTWAIT) > 0) {
        }
    }
    static size_t unread(int fd)
    {
        int bytes = 0;
        ioctl(fd, FIONREAD, &bytes);
        return size_t(bytes);
    }

    link source;
    link sink;
    relay r;
};

TEST_F(Relay, hands_everything_over_when_both_sides_are_fast)
{
    source.send("hello");
    EXPECT_EQ(0, step());
    EXPECT_EQ("hello", sink.receive());
}

TEST_F(Relay, holds_a_buffer_only_while_something_is_pending)
{
    source.send("hello");
    EXPECT_EQ(0, step());
    EXPECT_EQ(nullptr, r.bytes);
    block(sink);
    source.send("later");
    EXPECT_EQ(5, step());
    EXPECT_NE(nullptr, r.bytes);
    while (sink.receive().find("later") == std::string::npos) {
        ASSERT_GE(step(), 0);
    }
    EXPECT_EQ(nullptr, r.bytes);
}

TEST_F(Relay, ends_the_session_when_there_is_no_memory_for_a_buffer)
{
    relay other;
    block(sink);
    source.send("takes the buffer that others have left");
    EXPECT_LT(0, step());
    source.send("hello");
    g_no_memory = true;
    EXPECT_EQ(-1, relay_step(other, source.relay_end, sink.relay_end));
    g_no_memory = false;
    EXPECT_EQ(ENOMEM, other.source_error);
}

TEST_F(Relay, loses_and_reorders_nothing_when_both_sides_are_slow)
{
    std::mt19937 random(42);
    std::string sent;
    std::string received;

    for (int round = 0; round < 4000; round++) {
        std::string chunk(random() % 3000, '\0');
        std::generate(chunk.begin(), chunk.end(), [&random] {
            return char(random());
        });
        ssize_t n =
            send(source.test_end, chunk.data(), chunk.size(), MSG_DONTWAIT);
        sent.append(chunk, 0, n > 0 ? size_t(n) : 0);
        relay_move(r, source.relay_end, sink.relay_end, 65536);
        received += sink.receive(random() % 2500 + 1);
    }
    ASSERT_GT(sent.size(), 1000000u);
    while (received.size() < sent.size()) {
        ASSERT_GE(step(), 0);
        std::string more = sink.receive();
        ASSERT_FALSE(more.empty() && relay_pending(r) == 0);
        received += more;
    }
    EXPECT_TRUE(sent == received);
    EXPECT_EQ(0, step());
}

TEST_F(Relay, leaves_the_source_alone_while_the_buffer_is_full)
{
    block(sink);
    source.send(std::string(2 * relay_capacity, 'x'));
    EXPECT_EQ(int(relay_capacity), step());
    EXPECT_EQ(relay_capacity, unread(source.relay_end));
    EXPECT_EQ(int(relay_capacity), step());
    EXPECT_EQ(relay_capacity, unread(source.relay_end));
}

TEST_F(Relay, delivers_what_is_buffered_before_it_reports_the_end)
{
    block(sink);
    source.send("last words");
    source.close_test_end();
    EXPECT_EQ(10, step());
    std::string all;
    int result;
    do {
        all += sink.receive();
        result = step();
    } while (result > 0);
    EXPECT_EQ(-1, result);
    all += sink.receive();
    EXPECT_EQ("last words", all.substr(all.find_first_not_of('#')));
}

TEST_F(Relay, reports_the_end_at_once_when_nothing_is_buffered)
{
    source.close_test_end();
    EXPECT_EQ(-1, step());
}

TEST_F(Relay, gives_up_on_a_sink_that_takes_nothing_after_the_end)
{
    block(sink);
    source.send("never read");
    source.close_test_end();
    auto start = clock_type::now();
    while (step() > 0 && since(start) < milliseconds(20000)) {
    }
    EXPECT_GE(since(start), milliseconds(1900));
    EXPECT_LT(since(start), milliseconds(15000));
    EXPECT_EQ(-1, step());
}

TEST_F(Relay, gives_up_on_a_source_that_left_behind_more_than_there_is_room_for)
{
    block(sink);
    source.send(std::string(2 * relay_capacity, 'x'));
    EXPECT_EQ(int(relay_capacity), step());
    source.close_test_end();
    auto start = clock_type::now();
    while (step() > 0 && since(start) < milliseconds(20000)) {
    }
    EXPECT_GE(since(start), milliseconds(1900));
    EXPECT_LT(since(start), milliseconds(15000));
}

TEST_F(Relay, does_not_give_up_while_the_sink_takes_something)
{
    block(sink);
    source.send(std::string(2 * relay_capacity, 'x'));
    source.close_test_end();
    std::string all;
    auto start = clock_type::now();
    while (since(start) < milliseconds(3500)) {
        ASSERT_GT(step(), 0);
        if (all.size() < size_t(since(start).count()) * 4) {
            all += sink.receive(4096);
        }
    }
    int result;
    do {
        all += sink.receive();
        result = step();
    } while (result > 0);
    all += sink.receive();
    EXPECT_EQ(2 * relay_capacity,
              size_t(std::count(all.begin(), all.end(), 'x')));
}

TEST_F(Relay, waits_patiently_for_a_stuck_sink_while_the_source_is_there)
{
    block(sink);
    source.send(std::string(relay_capacity, 'x'));
    auto start = clock_type::now();
    while (since(start) < milliseconds(2500)) {
        ASSERT_EQ(int(relay_capacity), step());
    }
}

TEST_F(Relay, ends_when_the_sink_has_failed)
{
    sink.close_test_end();
    source.send("nobody there");
    EXPECT_EQ(-1, step());
    EXPECT_EQ(EPIPE, r.sink_error);
}

TEST_F(Relay, ends_when_the_source_has_failed)
{
    int directory = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(directory, 0);
    EXPECT_EQ(-1, relay_step(r, directory, sink.relay_end));
    EXPECT_EQ(EISDIR, r.source_error);
    close(directory);
}

TEST_F(Relay, leaves_no_stale_interrupt_in_errno)
{
    /* Neither of the two ever blocks, so no call of the step sets errno. */
    int zero = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(zero, 0);
    ASSERT_GE(null, 0);
    for (int stale : {EINTR, EBADF}) {
        errno = stale;
        EXPECT_GE(relay_step(r, zero, null), 0);
        EXPECT_EQ(EAGAIN, errno);
    }
    close(zero);
    close(null);
}

TEST_F(Relay, leaves_other_lines_their_turn)
{
    int zero = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(zero, 0);
    ASSERT_GE(null, 0);
    size_t moved = relay_move(r, zero, null, 65536);
    EXPECT_GE(moved, 65536u);
    EXPECT_LE(moved, 65536u + 2 * relay_capacity);
    close(zero);
    close(null);
}

TEST_F(Relay, does_not_spin_while_it_is_stuck)
{
    block(sink);
    source.send(std::string(relay_capacity, 'x'));
    EXPECT_EQ(int(relay_capacity), step());
    auto start = clock_type::now();
    for (int i = 0; i < 50; i++) {
        EXPECT_EQ(int(relay_capacity), step());
    }
    EXPECT_GE(since(start), milliseconds(150));
}

TEST_F(Relay, waits_once_per_round_however_many_are_stuck)
{
    std::vector<relay> relays(20);

    block(sink);
    for (relay &each : relays) {
        source.send(std::string(relay_capacity, 'x'));
        relay_step(each, source.relay_end, sink.relay_end);
    }
    auto start = clock_type::now();
    for (int round = 0; round < 100; round++) {
        for (relay &each : relays) {
            relay_step(each, source.relay_end, sink.relay_end);
        }
    }
    /* 100 waits of 5 ms, and not 2000 of them. */
    EXPECT_GE(since(start), milliseconds(250));
    EXPECT_LT(since(start), milliseconds(5000));
}

class RelayDrain : public Relay
{
  protected:
    void SetUp() override
    {
        Relay::SetUp();
        master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(master, 0);
        ASSERT_EQ(0, grantpt(master));
        ASSERT_EQ(0, unlockpt(master));
        slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(slave, 0);
        termios modes;
        ASSERT_EQ(0, tcgetattr(slave, &modes));
        cfmakeraw(&modes);
        ASSERT_EQ(0, tcsetattr(slave, TCSANOW, &modes));
    }
    void TearDown() override
    {
        close(master);
        close_slave();
    }
    void print(const std::string &text) const
    {
        ASSERT_EQ(ssize_t(text.size()), write(slave, text.data(), text.size()));
    }
    void close_slave()
    {
        if (slave >= 0) {
            close(slave);
            slave = -1;
        }
    }
    milliseconds drain()
    {
        auto start = clock_type::now();
        relay_drain(r, master, sink.relay_end);
        return since(start);
    }

    int master = -1;
    int slave = -1;
};

TEST_F(RelayDrain, moves_what_the_program_printed_before_it_ended)
{
    std::string text(9000, 'z');
    text += "end";
    print(text);
    close_slave();
    int big = 1 << 16;
    setsockopt(sink.relay_end, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    drain();
    EXPECT_EQ(text, sink.receive());
    EXPECT_EQ(0u, relay_pending(r));
}

TEST_F(RelayDrain, moves_what_was_buffered_before_what_is_in_the_terminal)
{
    source.send("one ");
    block(sink);
    step();
    while (!sink.receive().empty()) {
    }
    print("two");
    drain();
    EXPECT_EQ("one two", sink.receive());
}

TEST_F(RelayDrain, does_not_wait_for_a_quiet_terminal)
{
    milliseconds best = milliseconds::max();
    for (int i = 0; i < 5; i++) {
        best = std::min(best, drain());
    }
    EXPECT_LT(best, milliseconds(100));
}

TEST_F(RelayDrain, waits_for_a_slow_peer_only_so_long)
{
    print("text");
    block(sink);
    milliseconds took = drain();
    EXPECT_GE(took, milliseconds(150));
    EXPECT_LT(took, milliseconds(5000));
}

TEST_F(RelayDrain, does_not_wait_for_a_peer_that_is_gone)
{
    milliseconds best = milliseconds::max();
    sink.close_test_end();
    for (int i = 0; i < 5; i++) {
        r = {};
        print("text");
        best = std::min(best, drain());
        EXPECT_EQ(EPIPE, r.sink_error);
    }
    EXPECT_LT(best, milliseconds(100));
}

TEST_F(RelayDrain, ends_though_the_source_never_does)
{
    int zero = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(zero, 0);
    ASSERT_GE(null, 0);
    relay_drain(r, zero, null);
    EXPECT_FALSE(r.source_ended);
    close(zero);
    close(null);
}

} // namespace
