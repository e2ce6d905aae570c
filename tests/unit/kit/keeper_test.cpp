// A session in its keeper, while calls fail there.
#include "kit/keeper.h"

#include <errno.h>
#include <linux/sockios.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/kit/keeper_fixture.h"

using fault::ALWAYS;

class KitKeeper : public KeeperFixture
{
  protected:
    bool has(const std::string &entry) const
    {
        return stored().find(entry + "\r\n") != std::string::npos;
    }

    // A program that says "up" and ends has done so, and nothing is left.
    void expect_a_session()
    {
        EXPECT_EQ(all(), "up\r\n");
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(heard(),
                  (std::vector<uint32_t>{BELL_RUNS, BELL_TERMINAL, BELL_USER,
                                         BELL_PROGRAM, BELL_ENDED}));
        EXPECT_EQ(text_of(BELL_ENDED), "clean");
        EXPECT_EQ(number_of(BELL_ENDED), 0);
        EXPECT_TRUE(has("SESSIONID=0"));
    }

    // The path behind a descriptor of the keeper; empty when it is closed.
    std::string descriptor(int number) const
    {
        std::error_code none;
        return std::filesystem::read_symlink(
            "/proc/" + std::to_string(keeper) + "/fd/" + std::to_string(number),
            none);
    }
};

TEST_F(KitKeeper, daemon_hears_of_a_session_from_its_begin_to_its_end)
{
    run("echo up; read line; exit 3");
    begin();
    EXPECT_EQ(read_until("up\r\n"), "up\r\n");
    ASSERT_TRUE(hears(BELL_PROGRAM));
    EXPECT_EQ(number_of(BELL_RUNS), keeper);
    EXPECT_EQ(text_of(BELL_TERMINAL), device);
    EXPECT_TRUE(has("SESSIONID=" + id));
    EXPECT_TRUE(has("TTYPID=" + std::to_string(number_of(BELL_TERMINAL))));
    // Nobody has said what kind of line it is.
    EXPECT_TRUE(has("TTYTYPE=0"));
    EXPECT_EQ(descriptor(0), "/dev/null");
    type("\n");
    all();
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(number_of(BELL_ENDED), 3 << 8);
    EXPECT_TRUE(has("SESSIONID=0"));
    EXPECT_EQ(logged(), "");
}

TEST_F(KitKeeper, keeper_that_cannot_start_a_program_ends)
{
    fault_row("kit_keep", "signalfd", "EMFILE", "the keeper ends with 1", "",
              "no program, the line as it was");
    fault_row("kit_keep", "socketpair", "EMFILE", "the keeper ends with 1", "",
              "no program, the line as it was");
    fault_row("kit_keep", "fork", "EAGAIN", "the keeper ends with 1", "",
              "no program, the line as it was");
    const struct {
        const char *call;
        int error;
    } cases[] = {
        {"signalfd", EMFILE}, {"socketpair", EMFILE}, {"fork", EAGAIN}};
    for (const auto &one : cases) {
        begin([one] {
            fault::fail(one.call, 1, one.error);
        });
        EXPECT_EQ(all(), "") << one.call;
        EXPECT_EQ(end(), 1 << 8) << one.call;
        EXPECT_EQ(heard(), (std::vector<uint32_t>{BELL_RUNS})) << one.call;
        EXPECT_FALSE(support::exists(path("/mng/tty/.tty_info_258")));
    }
}

TEST_F(KitKeeper, name_and_place_among_processes_are_no_condition)
{
    fault_row("kit_keep", "prctl", "EINVAL", "nothing", "",
              "the session begins");
    begin([] {
        fault::fail("prctl", 1, EINVAL, ALWAYS);
    });
    expect_a_session();
}

TEST_F(KitKeeper, without_a_null_device_the_standard_streams_are_closed)
{
    fault_row("kit_keep", "open", "EMFILE", "nothing", "",
              "the session begins, the keeper's streams closed");
    run("echo up; read line");
    begin([] {
        fault::fail("open", 1, EMFILE, 1, fault::only_path("/dev/null"));
    });
    EXPECT_EQ(read_until("up\r\n"), "up\r\n");
    ASSERT_TRUE(hears(BELL_PROGRAM));
    for (int fd = 0; fd <= 2; fd++) {
        EXPECT_EQ(descriptor(fd).find("/dev/"), std::string::npos) << fd;
    }
    type("\n");
    all();
    EXPECT_EQ(end(), 0);
}

// They are on the terminal before.
TEST_F(KitKeeper, streams_that_cannot_be_replaced_stay)
{
    fault_row("kit_keep", "dup2", "EBUSY", "nothing", "",
              "the session begins, the keeper's streams on the terminal");
    run("echo up; read line");
    begin([] {
        fault::fail("dup2", 1, EBUSY, ALWAYS);
    });
    EXPECT_EQ(read_until("up\r\n"), "up\r\n");
    ASSERT_TRUE(hears(BELL_PROGRAM));
    EXPECT_EQ(descriptor(0), device);
    type("\n");
    all();
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(number_of(BELL_ENDED), 0);
}

TEST_F(KitKeeper, connection_that_cannot_be_tuned_serves_all_the_same)
{
    fault_row("kit_keep", "setsockopt", "EINVAL", "nothing", "",
              "the session begins");
    over_tcp = true;
    begin([] {
        fault::fail("setsockopt", 1, EINVAL, ALWAYS);
    });
    expect_a_session();
}

TEST_F(KitKeeper, program_that_cannot_be_let_go_ends)
{
    fault_row("kit_keep", "send", "ENOBUFS", "the program ends with 127", "",
              "the line as it was");
    begin([] {
        // Behind what the daemon is told first.
        fault::fail("send", 4, ENOBUFS);
    });
    EXPECT_EQ(all(), "");
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(number_of(BELL_ENDED), 127 << 8);
    EXPECT_FALSE(support::exists(path("/mng/tty/.tty_info_258")));
}

TEST_F(KitKeeper, line_that_cannot_be_had_is_no_session)
{
    fault_row("kit_keep", "calloc", "ENOMEM",
              "the client reads why, the program never runs", "",
              "a clean line");
    begin([] {
        fault::fail("calloc", 1, ENOMEM);
    });
    EXPECT_EQ(all(), "\r\nttyline: no session: line 258 cannot be read: "
                     "Cannot allocate memory\r\n");
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(number_of(BELL_PROGRAM), -1000);
    EXPECT_NE(number_of(BELL_ENDED), 0);
}

// Whoever is to mend the disk has to come in.
TEST_F(KitKeeper, broken_disk_keeps_nobody_out)
{
    fault_row("kit_keep", "open", "EROFS", "nothing",
              "no-identity line=%d id=%s reason=%s",
              "the session begins on a line that does not know it");
    for (const int error : {ENOSPC, EDQUOT, EROFS, EIO}) {
        begin([error] {
            fault::fail("open", 1, error, 1, fault::only_path(".lock"));
        });
        EXPECT_EQ(all(), "up\r\n") << error;
        EXPECT_EQ(end(), 0) << error;
        EXPECT_NE(logged().find("no-identity line=258 id=" + id + " reason="),
                  std::string::npos)
            << logged();
    }
}

TEST_F(KitKeeper, wait_that_is_interrupted_is_begun_again)
{
    fault_row("kit_keep", "poll", "EINTR", "nothing", "",
              "the session goes on");
    over_tcp = true;
    begin([] {
        fault::fail("poll", 1, EINTR, 5);
    });
    expect_a_session();
}

TEST_F(KitKeeper, broken_connection_ends_the_session)
{
    fault_row("kit_keep", "recv", "ECONNRESET", "the program is hung up", "",
              "a clean line");
    fault_row("kit_keep", "send", "EPIPE", "the program is hung up", "",
              "a clean line");
    run("echo up; read line; read line; exit 9");
    for (const char *call : {"recv", "send"}) {
        const int error = call[0] == 'r' ? ECONNRESET : EPIPE;
        begin([this, call, error] {
            fault::fail(call, 2, error, 1, fault::only_fd(connection));
            fault::fail(call, 1, EINTR, 1, fault::only_fd(connection));
        });
        type("a\n");
        all();
        EXPECT_EQ(end(), 0) << call;
        EXPECT_EQ(number_of(BELL_ENDED), SIGHUP) << call;
        EXPECT_TRUE(has("SESSIONID=0"));
    }
}

TEST_F(KitKeeper, output_that_the_peer_does_not_take_is_given_up)
{
    fault_row("kit_keep", "send", "EAGAIN",
              "the output is lost after the service's drain_ms", "",
              "a clean line");
    service.drain_ms = 300;
    begin([this] {
        fault::fail("send", 1, EAGAIN, ALWAYS, fault::only_fd(connection));
    });
    EXPECT_EQ(all(), "");
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(number_of(BELL_ENDED), 0);
    EXPECT_TRUE(has("SESSIONID=0"));
}

// Whatever the terminal's end-of-file character is, it has to be known.
TEST_F(KitKeeper, end_of_input_is_typed_when_the_terminal_can_be_asked)
{
    fault_row("kit_keep", "tcgetattr", "EIO", "nothing", "",
              "the end of input is typed a moment later");
    run("cat; echo over");
    begin([] {
        fault::fail("tcgetattr", 2, EIO, 2);
    });
    ASSERT_TRUE(hears(BELL_PROGRAM));
    ASSERT_EQ(shutdown(client, SHUT_WR), 0);
    const std::string text = all();
    EXPECT_NE(text.find("over\r\n"), std::string::npos) << text;
    EXPECT_EQ(end(), 0);
}

TEST_F(KitKeeper, orphan_of_the_program_is_reaped_while_that_runs)
{
    run("sh -c 'sleep 0.05 & echo $!'; read line");
    begin();
    const pid_t orphan = std::stoi("0" + read_until("\n"));
    ASSERT_GT(orphan, 0);
    EXPECT_TRUE(support::wait_until(
        [orphan] {
            return kill(orphan, 0) != 0 && errno == ESRCH;
        },
        PATIENCE_MS));
    type("\n");
    all();
    EXPECT_EQ(end(), 0);
}

TEST_F(KitKeeper, whoever_ends_a_session_is_named_to_its_user)
{
    run("echo up; exec sleep 60");
    begin();
    read_until("up\r\n");
    ASSERT_TRUE(hears(BELL_PROGRAM));
    // What only keepers say is no order to one.
    ASSERT_TRUE(kit_bell_say(bell, BELL_RUNS, 0, "x"));
    ASSERT_TRUE(kit_bell_say(bell, BELL_END, 0, "work at noon"));
    // The daemon that goes meanwhile changes nothing about it.
    close(bell);
    bell = -1;
    EXPECT_EQ(all(), "\r\nttyline: work at noon\r\n");
    EXPECT_EQ(end(), 0);

    begin();
    read_until("up\r\n");
    ASSERT_EQ(kill(keeper, SIGTERM), 0);
    EXPECT_EQ(all(), "\r\nttyline: this session was ended\r\n");
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(number_of(BELL_ENDED), SIGHUP);
}

TEST_F(KitKeeper, session_ends_with_its_daemon)
{
    run("echo up; exec sleep 60");
    begin();
    read_until("up\r\n");
    close(bell);
    bell = -1;
    EXPECT_EQ(all(), "");
    EXPECT_EQ(end(), 0);
    EXPECT_TRUE(has("SESSIONID=0"));
}
