// Services that should listen and do not, against an inetd that the test plays.
#include "tests/system/kit/kit_daemon.h"

constexpr int TWO_LOOKS_MS = 8000;

class KitListening : public KitTest
{
  protected:
    void SetUp() override
    {
        KitTest::SetUp();
        inetd.reset();
        played = std::make_unique<FakeInetd>();
        on_path = service_on(unix_path = console());
        on_path.program = program;
        on_port = on_path;
        on_port.path = nullptr;
        on_port.protocol = 6;
        on_port.families = KIT_IPV4;
        on_port.port = free_port(AF_INET);
        daemon = std::make_unique<Daemon>([&] {
            if (kit_offer(&on_port) == 0 && kit_offer(&on_path) == 0) {
                kit_run(&record);
            }
            fprintf(stderr, "%s\n", kit_error());
            _exit(97);
        });
    }

    void TearDown() override
    {
        daemon.reset();
        played.reset();
        KitTest::TearDown();
    }

    const char *program[2] = {"/bin/cat", nullptr};
    std::string unix_path;
    kit_service on_path = {};
    kit_service on_port = {};
    std::unique_ptr<FakeInetd> played;
};

TEST_F(KitListening, service_that_has_lost_its_permit_is_announced_again)
{
    InetdConnection connection = played->accept();
    auto bad = connection.receive();
    const auto good = connection.receive();
    ASSERT_TRUE(bad && good);
    // It cannot be obeyed, and takes the one behind it along.
    bad->socktype = AF_NETLINK;
    const tty_cmsg both[] = {*bad, *good};
    ASSERT_TRUE(connection.send_bytes(both, sizeof both));
    InetdConnection next = played->accept();
    auto request = next.receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->protocol, 6);
    ASSERT_TRUE(next.permit(*request));
    request = next.receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->protocol, 7);
    ASSERT_TRUE(next.permit(*request));
    EXPECT_TRUE(eventually([&] {
        return path_listens(unix_path);
    }));
}

TEST_F(KitListening, service_that_listens_or_was_stopped_is_left_alone)
{
    InetdConnection connection = played->accept();
    for (int i = 0; i < 2; i++) {
        const auto request = connection.receive();
        ASSERT_TRUE(request);
        ASSERT_TRUE(connection.permit(*request));
    }
    EXPECT_TRUE(eventually([&] {
        return ask("stop 7") == "ok\n";
    }));
    EXPECT_TRUE(connection.silent(TWO_LOOKS_MS));
}

// Whoever does not answer is not asked for ever.
TEST_F(KitListening, service_that_is_not_permitted_is_given_up)
{
    InetdConnection connection = played->accept();
    const auto port = connection.receive();
    const auto path = connection.receive();
    ASSERT_TRUE(port && path);
    ASSERT_TRUE(connection.permit(*port));
    for (int i = 0; i < 5; i++) {
        const auto request = connection.receive();
        ASSERT_TRUE(request);
        EXPECT_EQ(request->protocol, 7);
    }
    EXPECT_TRUE(connection.silent(TWO_LOOKS_MS));
}
