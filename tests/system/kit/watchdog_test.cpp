// What the service manager hears of a daemon on the kit.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>

#include "tests/system/kit/kit_daemon.h"

constexpr int INTERVAL_MS = 100;
constexpr int PATIENCE_MS = 20000;

// The callback that the loop hangs in while nothing is written here.
static int g_gate[2];

static int wait_at_gate(const kit_session *, char *, size_t, void *)
{
    char byte = 0;
    ssize_t got = 0;

    // The wake-ups of the loop are no end of this.
    do {
        got = read(g_gate[0], &byte, 1);
    } while (got < 0 && errno == EINTR);
    return got == 1 ? 0 : -1;
}

static int say_nothing(const kit_session *, void *)
{
    return 0;
}

class KitWatchdog : public KitTest
{
  protected:
    void SetUp() override
    {
        struct sockaddr_un address = {};

        KitTest::SetUp();
        const std::string name = path("/manager");
        manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, name.data(), name.size());
        ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address),
                       sizeof address),
                  0);
        ASSERT_EQ(pipe2(g_gate, O_CLOEXEC), 0);
        beforehand = [name, this] {
            setenv("NOTIFY_SOCKET", name.c_str(), 1);
            if (with_watchdog) {
                setenv("WATCHDOG_USEC",
                       std::to_string(2000 * INTERVAL_MS).c_str(), 1);
            }
        };
        service = service_on(unix_path = console());
        service.function = say_nothing;
    }

    void TearDown() override
    {
        KitTest::TearDown();
        close(manager);
        close(g_gate[0]);
        close(g_gate[1]);
    }

    // The next word, empty when none comes in time.
    std::string heard(int wait_ms = PATIENCE_MS) const
    {
        struct pollfd asked = {manager, POLLIN, 0};
        char text[64];

        if (poll(&asked, 1, wait_ms) != 1) {
            return "";
        }
        const ssize_t got = recv(manager, text, sizeof text, 0);
        return std::string(text, static_cast<size_t>(got > 0 ? got : 0));
    }

    int manager = -1;
    bool with_watchdog = true;
    std::string unix_path;
    kit_service service = {};
};

TEST_F(KitWatchdog, ready_is_said_once_and_then_that_it_is_alive)
{
    start({&service});
    EXPECT_EQ(heard(), "READY=1");
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(heard(), "WATCHDOG=1");
    }
}

TEST_F(KitWatchdog, ready_is_all_that_a_manager_without_a_watchdog_hears)
{
    with_watchdog = false;
    start({&service});
    EXPECT_EQ(heard(), "READY=1");
    EXPECT_EQ(heard(5 * INTERVAL_MS), "");
    kill(daemon->pid(), SIGTERM);
    EXPECT_EQ(heard(), "STOPPING=1");
    daemon->end();
}

// It tries again and again, and is alive.
TEST_F(KitWatchdog, a_daemon_without_its_inetd_is_ready_and_alive)
{
    inetd.reset();
    daemon = std::make_unique<Daemon>([&] {
        beforehand();
        kit_offer(&service);
        kit_run(&record);
    });
    EXPECT_EQ(heard(), "READY=1");
    EXPECT_EQ(heard(), "WATCHDOG=1");
    EXPECT_EQ(heard(), "WATCHDOG=1");
}

TEST_F(KitWatchdog, a_loop_that_hangs_is_not_said_to_be_alive)
{
    service.admit = wait_at_gate;
    start({&service});
    EXPECT_EQ(heard(), "READY=1");
    EXPECT_EQ(heard(), "WATCHDOG=1");
    const int client = connect_path(console());
    ASSERT_GE(client, 0);
    // What was said until it hung is heard, and nothing then.
    const auto began = std::chrono::steady_clock::now();
    while (!heard(5 * INTERVAL_MS).empty()) {
        ASSERT_LT(std::chrono::steady_clock::now() - began,
                  std::chrono::milliseconds(PATIENCE_MS));
    }
    ASSERT_EQ(write(g_gate[1], "g", 1), 1);
    EXPECT_EQ(heard(), "WATCHDOG=1");
    EXPECT_EQ(heard(), "WATCHDOG=1");
    close(client);
}
