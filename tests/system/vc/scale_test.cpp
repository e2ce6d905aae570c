// Every usable line in use at once.
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"

// Descriptors of this test: a client per line and some more.
static void raise_limit()
{
    struct rlimit limit;

    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 8192);
    setrlimit(RLIMIT_NOFILE, &limit);
}

static std::vector<int> usable_lines()
{
    std::vector<int> lines;

    for (int ttyno = 258; ttyno <= 1148; ttyno++) {
        lines.push_back(ttyno);
    }
    for (int ttyno = 1421; ttyno <= 1585; ttyno++) {
        lines.push_back(ttyno);
    }
    return lines;
}

TEST_F(SystemTest, all_1056_lines_carry_data_both_ways_at_once)
{
    FakeInetd inetd;
    const std::string name = path("/s");
    raise_limit();
    Daemon daemon([&] {
        must_register(relaying(AF_UNIX, 0, name.c_str(), 7));
    });
    InetdConnection connection = inetd.accept();
    ASSERT_TRUE(connection.permit(*connection.receive()));
    ASSERT_TRUE(logged(" success.\r\n"));
    const size_t before = daemon.descriptors().size();

    const std::vector<int> lines = usable_lines();
    ASSERT_EQ(lines.size(), 1056u);
    std::vector<int> clients;
    for (const int ttyno : lines) {
        int client = -1;
        ASSERT_TRUE(eventually([&] {
            return (client = connect_path(name)) >= 0;
        }));
        clients.push_back(client);
        const auto report = connection.receive();
        ASSERT_TRUE(report) << ttyno;
        ASSERT_TRUE(connection.assign(*report, ttyno));
        const auto success = connection.receive();
        ASSERT_TRUE(success) << ttyno;
        ASSERT_EQ(success->vc_flag, 0x020u) << ttyno;
    }
    EXPECT_EQ(daemon.children().size(), lines.size());
    for (size_t i = 0; i < clients.size(); i++) {
        ASSERT_TRUE(write_all(clients[i], std::to_string(lines[i]) + "\n"));
    }
    for (size_t i = 0; i < clients.size(); i++) {
        ASSERT_EQ(read_until(clients[i], "\n"),
                  "> " + std::to_string(lines[i]) + "\r\n");
    }
    for (const int client : clients) {
        close(client);
    }
    std::vector<bool> cleaned(TTY_LINES);
    for (size_t i = 0; i < lines.size(); i++) {
        const auto clean = connection.receive();
        ASSERT_TRUE(clean);
        ASSERT_EQ(clean->vc_flag, 0x002u);
        EXPECT_FALSE(cleaned[static_cast<size_t>(clean->ttyno)]);
        cleaned[static_cast<size_t>(clean->ttyno)] = true;
    }
    EXPECT_TRUE(daemon.has_no_children());
    EXPECT_TRUE(daemon.settles_at(before));
}
