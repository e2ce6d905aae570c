#include "vc/pending.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/vc_fixture.h"

class PendingTest : public VcTest
{
  protected:
    void TearDown() override
    {
        vc_pending_drop_all();
        VcTest::TearDown();
    }

    // A socket of its own.
    static int connection()
    {
        return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    }

    static bool is_open(int fd)
    {
        return fcntl(fd, F_GETFD) != -1;
    }

    // The descriptors that wait, in the order of the list.
    static std::vector<int> waiting()
    {
        std::vector<int> fds;
        for (const vc_list *link = g_vc_accept_list.next;
             link != &g_vc_accept_list; link = link->next) {
            fds.push_back(reinterpret_cast<const vc_accept_entry *>(link)->fd);
        }
        return fds;
    }
};

TEST_F(PendingTest, nothing_waits_at_first)
{
    EXPECT_TRUE(waiting().empty());
    EXPECT_EQ(g_vc_accept_fd_num, 0);
}

TEST_F(PendingTest, connections_wait_in_the_order_of_their_coming)
{
    const int first = connection();
    const int second = connection();
    EXPECT_EQ(vc_pending_add(first)->accept_id, 1);
    EXPECT_EQ(vc_pending_add(second)->accept_id, 2);
    EXPECT_EQ(g_vc_accept_fd_num, 2);
    EXPECT_EQ(waiting(), (std::vector<int>{first, second}));
    const auto texts = messages();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[1].find("vc: vc_accept, fd=" + std::to_string(second) +
                            ", num=2, line="),
              0u);
}

TEST_F(PendingTest, an_entry_that_is_taken_leaves_its_socket_open)
{
    const int fd = connection();
    vc_pending_add(fd);
    vc_pending_take(fd, 1);
    EXPECT_TRUE(waiting().empty());
    EXPECT_EQ(g_vc_accept_fd_num, 0);
    EXPECT_TRUE(is_open(fd));
    close(fd);
}

TEST_F(PendingTest, an_entry_is_taken_by_descriptor_and_id_together)
{
    const int fd = connection();
    vc_pending_add(fd);
    vc_pending_take(fd, 2);
    vc_pending_take(fd + 1, 1);
    EXPECT_EQ(waiting(), (std::vector<int>{fd}));
}

TEST_F(PendingTest, an_id_comes_again_when_the_list_has_shrunk)
{
    const int first = connection();
    const int second = connection();
    const int third = connection();
    vc_pending_add(first);
    vc_pending_add(second);
    vc_pending_take(first, 1);
    EXPECT_EQ(vc_pending_add(third)->accept_id, 2);
    // The descriptor tells the two apart.
    vc_pending_take(third, 2);
    EXPECT_EQ(waiting(), (std::vector<int>{second}));
    close(first);
    close(third);
}

TEST_F(PendingTest, a_dropped_entry_leaves_its_socket_as_it_is)
{
    const int fd = connection();
    vc_pending_drop(vc_pending_add(fd));
    EXPECT_TRUE(waiting().empty());
    EXPECT_EQ(g_vc_accept_fd_num, 0);
    EXPECT_TRUE(is_open(fd));
    close(fd);
}

TEST_F(PendingTest, all_are_dropped_with_their_sockets_and_a_line_each)
{
    const int first = connection();
    const int second = connection();
    vc_pending_add(first);
    vc_pending_add(second);
    messages();
    errno = 0;
    vc_pending_drop_all();
    EXPECT_TRUE(waiting().empty());
    EXPECT_EQ(g_vc_accept_fd_num, 0);
    EXPECT_FALSE(is_open(first));
    EXPECT_FALSE(is_open(second));
    const std::string line = "(vc:" + std::to_string(getpid()) +
                             "):vc_deal_msg close all socket fd, err " +
                             strerror(0) + ".\r\n";
    EXPECT_EQ(messages(), (std::vector<std::string>{line, line}));
}

TEST_F(PendingTest, descriptor_0_is_dropped_without_being_closed)
{
    vc_pending_add(0);
    const int closes = fault::watch("close", fault::only_fd(0));
    vc_pending_drop_all();
    EXPECT_EQ(fault::seen(closes), 0);
    EXPECT_TRUE(waiting().empty());
}

TEST_F(PendingTest, a_connection_there_is_no_memory_for_does_not_wait)
{
    fault_row("vc_pending_add", "malloc", "ENOMEM", "a null pointer",
              "vc: malloc accpet_fd fail at %s, line:%d\n",
              "the socket is the caller's");
    const int fd = connection();
    fault::fail("malloc", 1, ENOMEM);
    EXPECT_EQ(vc_pending_add(fd), nullptr);
    fault::reset();
    EXPECT_EQ(g_vc_accept_fd_num, 0);
    EXPECT_TRUE(waiting().empty());
    EXPECT_TRUE(is_open(fd));
    close(fd);
}
