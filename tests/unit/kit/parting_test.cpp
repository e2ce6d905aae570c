// The end of a session in its keeper, while calls fail there.
#include <errno.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/kit/keeper_fixture.h"

class KitParting : public KeeperFixture
{
};

TEST_F(KitParting, connection_that_tells_nothing_is_not_waited_for)
{
    fault_row("kit_keeping_finish", "ioctl", "EINVAL", "nothing", "",
              "the connection is closed at once");
    over_tcp = true;
    narrow = true;
    service.drain_ms = 600000;
    run("stty -opost; head -c 60000 /dev/zero");
    begin([] {
        fault::fail("ioctl", 1, EINVAL, 1, fault::only_what(SIOCOUTQ));
    });
    // The client has not read anything.
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(number_of(BELL_ENDED), 0);
}

static void note_draining()
{
    const std::string name = std::string(getenv("TMPDIR")) + "/draining";

    close(open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
}

TEST_F(KitParting, session_that_drains_can_be_ended_by_a_signal)
{
    over_tcp = true;
    narrow = true;
    service.drain_ms = 600000;
    run("stty -opost; head -c 60000 /dev/zero");
    begin([] {
        fault::run("shutdown", 1, note_draining);
    });
    ASSERT_TRUE(support::wait_until(
        [this] {
            return support::exists(path("/draining"));
        },
        PATIENCE_MS));
    ASSERT_EQ(kill(keeper, SIGTERM), 0);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(number_of(BELL_ENDED), 0);
}

// A unix client that goes on typing must not hold its keeper up.
TEST_F(KitParting, input_that_nobody_takes_any_more_does_not_delay_the_end)
{
    run("stty raw -echo; echo up; exec sleep 60");
    begin();
    read_until("up\n");
    const std::string much(4096, 'm');
    ASSERT_TRUE(hears(BELL_PROGRAM));
    size_t typed = 0;
    ssize_t put;
    // Until neither the terminal nor the keeper nor the socket takes more.
    for (int full = 0; full < 20;) {
        put =
            send(client, much.data(), much.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        typed += put > 0 ? static_cast<size_t>(put) : 0;
        full = put > 0 ? 0 : full + 1;
        usleep(put > 0 ? 0 : 5000);
    }
    EXPECT_GT(typed, size_t{100} * 1024);
    ASSERT_TRUE(kit_bell_say(bell, BELL_END, 0, "enough"));
    EXPECT_EQ(all(), "\r\nttyline: enough\r\n");
    EXPECT_EQ(end(), 0);
}

TEST_F(KitParting, line_that_cannot_be_cleaned_is_not_said_to_be_clean)
{
    fault_row("kit_keeping_finish", "open", "EMFILE",
              "the daemon does not hear that the line is clean", "",
              "the line says that it is the session's");
    begin([] {
        // In the keeper alone, when its program has stored.
        fault::run("poll", 1, [] {
            fault::fail("open", 1, EMFILE, 1, fault::only_path(".lock"));
        });
    });
    EXPECT_EQ(all(), "up\r\n");
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(text_of(BELL_ENDED), BELL_EMPTY);
    EXPECT_EQ(number_of(BELL_ENDED), 0);
    EXPECT_NE(stored().find("SESSIONID=" + id + "\r\n"), std::string::npos);
}
