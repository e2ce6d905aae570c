#include "programs/ttylined/client.h"

#include <cstring>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/login_records.h"

// A client whose other end the test has.
class Client : public testing::Test
{
  protected:
    void SetUp() override
    {
        int ends[2];

        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        cli.fd = ends[0];
        cli.number = 1;
        peer = ends[1];
    }

    void TearDown() override
    {
        close(cli.fd);
        leave();
    }

    void leave()
    {
        if (peer >= 0) {
            close(peer);
        }
        peer = -1;
    }

    bool tell(const tty_cmsg &sent, std::size_t length = sizeof(tty_cmsg))
    {
        return write(peer, &sent, length) == static_cast<ssize_t>(length);
    }

    // Whether the next record that the peer gets is this one.
    bool gets(const tty_cmsg &expected)
    {
        tty_cmsg got = {};

        return recv(peer, &got, sizeof got, 0) == sizeof got &&
               std::memcmp(&got, &expected, sizeof got) == 0;
    }

    client cli;
    int peer = -1;
    tty_cmsg record = {};
};

TEST_F(Client, gives_records_as_they_were_sent)
{
    ASSERT_TRUE(tell(listen_request(23, 6)));
    ASSERT_TRUE(tell(line_clean(258, 1)));
    ASSERT_TRUE(client_receive(cli));
    ASSERT_TRUE(client_next(cli, record));
    EXPECT_EQ(record.port, 23);
    ASSERT_TRUE(client_next(cli, record));
    EXPECT_EQ(record.ttyno, 258);
    EXPECT_FALSE(client_next(cli, record));
    EXPECT_FALSE(client_receive(cli));
    EXPECT_FALSE(cli.doomed);
}

TEST_F(Client, puts_a_record_together)
{
    const tty_cmsg request = listen_request(23, 6);
    ASSERT_TRUE(tell(request, 100));
    ASSERT_TRUE(client_receive(cli));
    EXPECT_FALSE(client_next(cli, record));
    ASSERT_EQ(write(peer, reinterpret_cast<const char *>(&request) + 100,
                    sizeof request - 100),
              static_cast<ssize_t>(sizeof request - 100));
    ASSERT_TRUE(client_receive(cli));
    ASSERT_TRUE(client_next(cli, record));
    EXPECT_EQ(std::memcmp(&record, &request, sizeof record), 0);
}

TEST_F(Client, that_leaves_after_a_failure_may_come_back)
{
    cli.renewing = true;
    leave();
    EXPECT_FALSE(client_receive(cli));
    EXPECT_TRUE(cli.doomed);
    EXPECT_TRUE(cli.renewing);
}

TEST_F(Client, that_leaves_in_the_middle_of_a_record_does_not_come_back)
{
    cli.renewing = true;
    ASSERT_TRUE(tell(listen_request(23, 6), 155));
    ASSERT_TRUE(client_receive(cli));
    leave();
    EXPECT_FALSE(client_receive(cli));
    EXPECT_TRUE(cli.doomed);
    EXPECT_FALSE(cli.renewing);
    EXPECT_FALSE(client_next(cli, record));
}

TEST_F(Client, gets_its_records_in_order_whenever_it_reads)
{
    // More than a socket holds, less than may be pending.
    for (int port = 1; port <= 1500; port++) {
        client_send(cli, listen_request(port, 6));
    }
    EXPECT_FALSE(cli.out.empty());
    EXPECT_FALSE(cli.doomed);
    for (int port = 1; port <= 1500; port++) {
        ASSERT_TRUE(gets(listen_request(port, 6))) << port;
        client_flush(cli);
    }
    EXPECT_TRUE(cli.out.empty());
}

TEST_F(Client, that_never_reads_is_doomed)
{
    cli.renewing = true;
    for (int i = 0; i < 100000 && !cli.doomed; i++) {
        client_send(cli, listen_request(23, 6));
    }
    EXPECT_TRUE(cli.doomed);
    EXPECT_FALSE(cli.renewing);
    EXPECT_LT(cli.out.size(), 2000U);
}

TEST_F(Client, that_has_left_is_still_listened_to)
{
    ASSERT_TRUE(tell(line_clean(258, 1)));
    leave();
    client_send(cli, listen_request(23, 6));
    EXPECT_TRUE(cli.deaf);
    EXPECT_FALSE(cli.doomed);
    EXPECT_TRUE(cli.out.empty());
    ASSERT_TRUE(client_receive(cli));
    EXPECT_TRUE(client_next(cli, record));
}
