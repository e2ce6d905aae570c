// A whole session, from connection to teardown.
#include <sys/socket.h>
#include <unistd.h>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"

TEST_F(SystemTest, connection_gets_a_line_carries_data_and_is_cleaned)
{
    FakeInetd inetd;
    const int port = free_port(AF_INET);
    Daemon daemon([&] {
        const vc_reg reg = relaying(AF_INET, port, nullptr, 6);
        ASSERT_EQ(vc_service_reg(&reg), 0);
    });
    InetdConnection connection = inetd.accept();
    const auto request = connection.receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->vc_flag, 0x008u);
    ASSERT_TRUE(connection.permit(*request));
    ASSERT_TRUE(logged("vc: bind v4 success\r\n"));
    const size_t before = daemon.descriptors().size();

    int client = -1;
    ASSERT_TRUE(eventually([&] {
        return (client = connect_port(AF_INET, port)) >= 0;
    }));
    const auto report = connection.receive();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->vc_flag, 0x001u);
    ASSERT_TRUE(connection.assign(*report, 300));
    const auto success = connection.receive();
    ASSERT_TRUE(success);
    EXPECT_EQ(success->vc_flag, 0x020u);
    EXPECT_TRUE(process_runs(success->pid));

    ASSERT_TRUE(write_all(client, "hello\n"));
    EXPECT_EQ(read_until(client, "\n"), "> hello\r\n");
    close(client);

    const auto clean = connection.receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->vc_flag, 0x002u);
    EXPECT_EQ(clean->ttyno, 300);
    EXPECT_EQ(clean->pid, success->pid);
    EXPECT_TRUE(daemon.has_no_children());
    EXPECT_TRUE(daemon.settles_at(before));
}
