// The loop without descriptors or memory for the client that waits.
#include <errno.h>
#include <poll.h>
#include <stdlib.h>

#include "tests/unit/vc/loop_fixture.h"

// A loop with a listener that clients come to.
class StarvedLoopTest : public LoopTest
{
  protected:
    // Gives a process with the service to the loop, and a client to its
    // listener.
    void run_with_a_client(const std::function<void()> &prepare)
    {
        const std::string name = path("/s");
        run_loop([&] {
            const vc_reg local = plain(AF_UNIX, 0, name.c_str(), 7);
            vc_service_reg(&local);
            prepare();
        });
        connection_ = accept4(inetd_, nullptr, nullptr, SOCK_CLOEXEC);
        tty_cmsg request = {};
        do {
            ASSERT_TRUE(next_record(&request));
        } while (request.vc_flag != 0x080);
        ASSERT_EQ(send(connection_, &request, sizeof request, MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof request));
        ASSERT_TRUE(says("vc: bind path " + name + " success.\r\n"));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, name.c_str());
        client_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_TRUE(support::wait_until([&] {
            return connect(client_, reinterpret_cast<sockaddr *>(&address),
                           sizeof address) == 0;
        }));
    }

    void TearDown() override
    {
        close(client_);
        close(connection_);
        LoopTest::TearDown();
    }

    bool next_record(tty_cmsg *record) const
    {
        pollfd one = {connection_, POLLIN, 0};
        return poll(&one, 1, 10000) == 1 &&
               recv(connection_, record, sizeof *record, MSG_WAITALL) ==
                   static_cast<ssize_t>(sizeof *record);
    }

    long failures() const
    {
        const auto texts = loop_messages();
        return std::count_if(texts.begin(), texts.end(),
                             [](const std::string &text) {
                                 return text.find("vc: accept fail") == 0;
                             });
    }

    int connection_ = -1;
    int client_ = -1;
};

TEST_F(StarvedLoopTest, without_descriptors_the_loop_does_not_spin)
{
    fault_row("vc_service_start", "accept4", "EMFILE",
              "the loop goes on, without its listeners for a while",
              "vc: accept fail, errno=%d, %s\n",
              "the client waits at the listener");
    run_with_a_client([] {
        fault::fail("accept4", 1, EMFILE, fault::ALWAYS);
    });
    ASSERT_TRUE(support::wait_until([&] {
        return failures() > 0;
    }));
    const long before = failures();
    usleep(1000000);
    // Ten a second on a machine with nothing else to do, and more only if the
    // second was longer.
    EXPECT_LT(failures() - before, 40);
}

TEST_F(StarvedLoopTest, a_client_is_taken_when_there_is_room_again)
{
    fault_row("vc_service_start", "accept4", "EMFILE, ENFILE, ENOBUFS, ENOMEM",
              "the loop goes on, without its listeners for a while",
              "vc: accept fail, errno=%d, %s\n",
              "the client is taken a little later");
    run_with_a_client([] {
        fault::fail("accept4", 1, EMFILE);
        fault::fail("accept4", 2, ENFILE);
        fault::fail("accept4", 3, ENOBUFS);
        fault::fail("accept4", 4, ENOMEM);
        fault::run("usleep", 1, note_pause, fault::ALWAYS);
    });
    tty_cmsg report;
    ASSERT_TRUE(next_record(&report));
    EXPECT_EQ(report.vc_flag, 0x001u);
    EXPECT_EQ(failures(), 4);
    // It waits, and does not sleep: sessions would sleep with it.
    const auto texts = loop_messages();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "test: pause\n"), 0);
}

static int g_pair[2];
static int g_moves;

// A session that has always something to move.
static void add_busy_session()
{
    auto *child = static_cast<vc_child *>(calloc(1, sizeof(vc_child)));

    if (socketpair(AF_UNIX, SOCK_STREAM, 0, g_pair) != 0 ||
        write(g_pair[1], "x", 1) != 1) {
        _exit(8);
    }
    child->ttyno = 300;
    child->sockfd = g_pair[0];
    child->master_fd = g_pair[1];
    child->inetd_fd = -1;
    child->reg.protocol = 6;
    child->reg.read_func = [](int) {
        char byte;
        g_moves++;
        return read(g_pair[0], &byte, 1) == 1 && write(g_pair[1], &byte, 1) == 1
                   ? 0
                   : -1;
    };
    vc_child_install(300, child);
}

TEST_F(StarvedLoopTest, sessions_go_on_while_the_listeners_rest)
{
    fault_row("vc_service_start", "accept4", "EMFILE",
              "the loop goes on, without its listeners for a while",
              "vc: accept fail, errno=%d, %s\n", "sessions move their data");
    run_with_a_client([] {
        add_busy_session();
        // Asked before the first accept.
        fault::run(
            "poll", 1,
            [] {
                g_moves = 0;
            },
            1);
        fault::fail("accept4", 1, EMFILE, 2);
        fault::run(
            "accept4", 3,
            [] {
                vc_debug_msg("test: moves %s\n", g_moves > 20 ? "many" : "few");
            },
            1);
    });
    EXPECT_TRUE(says("test: moves many\n"));
}
