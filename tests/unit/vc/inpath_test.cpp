#include "vc/inpath.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/inpath_fixture.h"

TEST_F(InpathTest, a_registered_path_is_a_service_of_protocol_10)
{
    EXPECT_EQ(vc_inpath_reg("/run/inpath"), 0);
    const vc_srv *srv = service(0);
    ASSERT_NE(srv, nullptr);
    vc_reg expected = {};
    expected.socket_type = 1;
    expected.listen_path = srv->reg.listen_path;
    expected.protocol = 10;
    expected.init_func = vc_inpath_init_func;
    expected.read_func = vc_inpath_read_func;
    expected.write_func = vc_inpath_write_func;
    expected.kill_func = vc_inpath_kill_func;
    expected.alloc_func = vc_inpath_alloc_func;
    expected.shell_func = vc_inpath_shell_func;
    EXPECT_EQ(memcmp(&srv->reg, &expected, sizeof expected), 0);
    EXPECT_STREQ(srv->reg.listen_path, "/run/inpath");
    EXPECT_TRUE(messages().empty());
}

TEST_F(InpathTest, a_null_path_registers_nothing)
{
    EXPECT_EQ(vc_inpath_reg(nullptr), -1);
    EXPECT_EQ(messages(), (texts{"vc: inpath path is NULL!\n"}));
    EXPECT_FALSE(g_vc_inited);
}

TEST_F(InpathTest, an_empty_path_is_refused_by_the_registry)
{
    EXPECT_EQ(vc_inpath_reg(""), -1);
    EXPECT_EQ(messages(),
              (texts{"vc: reg fail, protocol = 10, socket_type = 1, "
                     "listen_port = 0\n",
                     "vc: inpath  register fail!\n"}));
}

TEST_F(InpathTest, the_same_path_is_refused_twice)
{
    EXPECT_EQ(vc_inpath_reg("/run/a"), 0);
    EXPECT_EQ(vc_inpath_reg("/run/b"), 0);
    EXPECT_EQ(vc_inpath_reg("/run/a"), -1);
    EXPECT_EQ(messages(), (texts{"vc: reg fail, duplicate registration\n",
                                 "vc: inpath /run/a register fail!\n"}));
}

TEST_F(InpathTest, init_checks_the_line)
{
    EXPECT_EQ(vc_inpath_init_func(0), 0);
    EXPECT_EQ(vc_inpath_init_func(1585), 0);
    EXPECT_EQ(vc_inpath_init_func(-1), -1);
    EXPECT_EQ(vc_inpath_init_func(1586), -1);
}

TEST_F(InpathTest, alloc_appends_a_record)
{
    EXPECT_EQ(alloc(300), 0);
    EXPECT_EQ(alloc(301), 0);
    EXPECT_EQ(sessions(), 2);
    // Link, then line, connection, master and inetd connection.
    const auto *first =
        reinterpret_cast<const int32_t *>(g_vc_inpath_list.next + 1);
    EXPECT_EQ(first[0], 300);
    EXPECT_EQ(first[1], sockfd_);
    EXPECT_EQ(first[2], master_fd_);
    EXPECT_EQ(first[3], inetd_fd_);
}

TEST_F(InpathTest, alloc_refuses_bad_lines_and_descriptors)
{
    EXPECT_EQ(alloc(-1), -1);
    EXPECT_EQ(alloc(1586), -1);
    EXPECT_EQ(vc_inpath_alloc_func(300, -1, 5, 6), -1);
    EXPECT_EQ(vc_inpath_alloc_func(300, 5, -1, 6), -1);
    EXPECT_EQ(vc_inpath_alloc_func(300, 5, 6, -1), -1);
    EXPECT_EQ(sessions(), 0);
}

TEST_F(InpathTest, descriptor_0_is_one_like_others)
{
    ASSERT_EQ(vc_inpath_alloc_func(300, 0, 0, 0), 0);
    const int closes = fault::result("close", 1, 0, 3, fault::only_fd(0));
    vc_inpath_clean_resource(300);
    EXPECT_EQ(fault::seen(closes), 3);
}

TEST_F(InpathTest, alloc_without_memory_fails)
{
    fault_row("vc_inpath_alloc_func", "calloc", "ENOMEM", "-1", "",
              "no record");
    fault::fail("calloc", 1, ENOMEM);
    EXPECT_EQ(alloc(300), -1);
    EXPECT_EQ(sessions(), 0);
}

TEST_F(InpathTest, read_moves_150_bytes_in_chunks_of_64)
{
    const std::string text(150, 'x');
    ASSERT_EQ(alloc(300), 0);
    ASSERT_TRUE(type(client_[1], text));
    EXPECT_EQ(vc_inpath_read_func(300), 0);
    EXPECT_EQ(arrived(terminal_[1]), text);
    const std::string wrote = "vc: vc_inpath_transfer_msg write ";
    EXPECT_EQ(messages(),
              (texts{"vc: TTY[300] vc_inpath_read_func.\n",
                     wrote + "64 " + std::string(64, 'x') + " \r\n",
                     wrote + "64 " + std::string(64, 'x') + " \r\n",
                     wrote + "22 " + std::string(22, 'x') + " \r\n"}));
}

TEST_F(InpathTest, write_moves_the_other_way)
{
    ASSERT_EQ(alloc(300), 0);
    ASSERT_TRUE(type(terminal_[1], "answer"));
    EXPECT_EQ(vc_inpath_write_func(300), 0);
    EXPECT_EQ(arrived(client_[1]), "answer");
    EXPECT_EQ(messages(),
              (texts{"vc: TTY[300] vc_inpath_write_func.\n",
                     "vc: vc_inpath_transfer_msg write 6 answer \r\n"}));
}

TEST_F(InpathTest, nothing_pending_is_no_failure)
{
    fault_row("vc_inpath_transfer_msg", "read", "EAGAIN", "0", "", "");
    ASSERT_EQ(alloc(300), 0);
    EXPECT_EQ(vc_inpath_read_func(300), 0);
    EXPECT_EQ(vc_inpath_write_func(300), 0);
    EXPECT_EQ(messages().size(), 2u);
}

TEST_F(InpathTest, a_bad_line_fails)
{
    EXPECT_EQ(vc_inpath_read_func(-1), -1);
    EXPECT_EQ(vc_inpath_write_func(1586), -1);
    EXPECT_EQ(messages(),
              (texts{"vc: TTY[-1] vc_inpath_read_func.\n",
                     "vc: TTY[-1] vc_inpath_read_func failed.\n",
                     "vc: TTY[1586] vc_inpath_write_func.\n",
                     "vc: TTY[1586] vc_inpath_write_func failed.\n"}));
}

TEST_F(InpathTest, a_line_without_a_record_is_no_failure)
{
    EXPECT_EQ(vc_inpath_read_func(300), 0);
    EXPECT_EQ(vc_inpath_write_func(300), 0);
    EXPECT_EQ(vc_inpath_kill_func(300), 0);
    EXPECT_EQ(messages(),
              (texts{"vc: TTY[300] vc_inpath_read_func.\n",
                     "vc: TTY[300] vc_inpath_write_func.\n",
                     "vc: TTY[300] vc_inpath_kill_func.\n",
                     "vc: TTY[300] vc_inpath_kill_func success 0.\n"}));
}

TEST_F(InpathTest, the_first_record_of_a_line_counts)
{
    ASSERT_EQ(alloc(300), 0);
    ASSERT_EQ(vc_inpath_alloc_func(300, inetd_fd_, terminal_[0], client_[0]),
              0);
    ASSERT_TRUE(type(client_[1], "one"));
    EXPECT_EQ(vc_inpath_read_func(300), 0);
    EXPECT_EQ(arrived(terminal_[1]), "one");
    EXPECT_EQ(vc_inpath_kill_func(300), 0);
    ASSERT_TRUE(type(terminal_[1], "two"));
    EXPECT_EQ(vc_inpath_read_func(300), 0);
    EXPECT_EQ(arrived(client_[1]), "two");
}

TEST_F(InpathTest, a_client_that_closes_fails_the_next_read)
{
    fault_row("vc_inpath_transfer_msg", "read", "end of file", "-1",
              "vc: %s %s %d fail %s\r\n", "");
    ASSERT_EQ(alloc(300), 0);
    ASSERT_TRUE(type(client_[1], "last"));
    shutdown(client_[1], SHUT_WR);
    EXPECT_EQ(vc_inpath_read_func(300), -1);
    EXPECT_EQ(arrived(terminal_[1]), "last");
    const auto found = messages();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[2].find("vc: vc_inpath_transfer_msg read " +
                            number(sockfd_) + " fail "),
              0u)
        << found[2];
}

TEST_F(InpathTest, the_source_is_made_nonblocking_and_the_target_blocking)
{
    fcntl(master_fd_, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(vc_inpath_transfer_msg(sockfd_, master_fd_), 0);
    EXPECT_TRUE(nonblocking(sockfd_));
    EXPECT_FALSE(nonblocking(master_fd_));
}

TEST_F(InpathTest, negative_descriptors_are_refused)
{
    EXPECT_EQ(vc_inpath_transfer_msg(-1, 5), -1);
    EXPECT_EQ(vc_inpath_transfer_msg(5, -2), -1);
    EXPECT_EQ(messages(),
              (texts{"vc:vc_inpath_transfer_msg param is wrong, read fd -1 "
                     "write fd 5.\r\n",
                     "vc:vc_inpath_transfer_msg param is wrong, read fd 5 "
                     "write fd -2.\r\n"}));
}

TEST_F(InpathTest, a_failed_write_ends_the_transfer)
{
    fault_row("vc_inpath_transfer_msg", "write", "EIO", "-1",
              "vc: %s %s %d fail %s\r\n", "");
    ASSERT_TRUE(type(client_[1], "text"));
    fault::fail("write", 1, EIO, 1, fault::only_fd(master_fd_));
    EXPECT_EQ(vc_inpath_transfer_msg(sockfd_, master_fd_), -1);
    EXPECT_EQ(messages(),
              (texts{"vc: vc_inpath_transfer_msg write " + number(master_fd_) +
                     " fail " + strerror(EIO) + "\r\n"}));
}

TEST_F(InpathTest, a_failed_read_ends_the_transfer)
{
    fault_row("vc_inpath_transfer_msg", "read", "EIO", "-1",
              "vc: %s %s %d fail %s\r\n", "");
    fault::fail("read", 1, EIO, 1, fault::only_fd(sockfd_));
    EXPECT_EQ(vc_inpath_transfer_msg(sockfd_, master_fd_), -1);
    EXPECT_EQ(messages(),
              (texts{"vc: vc_inpath_transfer_msg read1 " + number(sockfd_) +
                     " fail " + strerror(EIO) + "\r\n"}));
}

// The relay logs errno after the callback has failed.
TEST_F(InpathTest, a_log_that_cannot_be_opened_keeps_the_reason)
{
    fault_row("vc_inpath_transfer_msg", "open", "EMFILE",
              "the errno of the read or write that failed", "", "");
    fault::fail("open", 1, EMFILE, fault::ALWAYS,
                fault::only_path(".vc_dump.txt"));
    fault::fail("read", 1, EIO, 1, fault::only_fd(sockfd_));
    errno = 0;
    EXPECT_EQ(vc_inpath_transfer_msg(sockfd_, master_fd_), -1);
    EXPECT_EQ(errno, EIO);
    ASSERT_TRUE(type(client_[1], "text"));
    fault::fail("write", 1, ENOSPC, 1, fault::only_fd(master_fd_));
    EXPECT_EQ(vc_inpath_transfer_msg(sockfd_, master_fd_), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(InpathTest, an_interrupted_read_is_done_again)
{
    fault_row("vc_inpath_transfer_msg", "read", "EINTR", "0", "",
              "all bytes moved");
    ASSERT_TRUE(type(client_[1], "text"));
    fault::fail("read", 1, EINTR, 3, fault::only_fd(sockfd_));
    EXPECT_EQ(vc_inpath_transfer_msg(sockfd_, master_fd_), 0);
    EXPECT_EQ(arrived(terminal_[1]), "text");
}

TEST_F(InpathTest, a_short_or_interrupted_write_is_completed)
{
    fault_row("vc_inpath_transfer_msg", "write", "short, EINTR", "0", "",
              "all bytes moved");
    ASSERT_TRUE(type(client_[1], "text"));
    fault::shorten("write", 1, 1, 1, fault::only_fd(master_fd_));
    fault::fail("write", 2, EINTR, 2, fault::only_fd(master_fd_));
    EXPECT_EQ(vc_inpath_transfer_msg(sockfd_, master_fd_), 0);
    EXPECT_EQ(arrived(terminal_[1]), "text");
}

TEST_F(InpathTest, the_logged_text_ends_at_a_zero_byte_the_data_does_not)
{
    const std::string text("ab\0cd", 5);
    ASSERT_TRUE(type(client_[1], text));
    EXPECT_EQ(vc_inpath_transfer_msg(sockfd_, master_fd_), 0);
    EXPECT_EQ(arrived(terminal_[1]), text);
    EXPECT_EQ(messages(),
              (texts{"vc: vc_inpath_transfer_msg write 5 ab \r\n"}));
}

TEST_F(InpathTest, the_logged_text_is_no_longer_than_the_chunk)
{
    // What an earlier, longer chunk left behind does not show.
    ASSERT_TRUE(type(client_[1], std::string(64, 'a') + "bb"));
    EXPECT_EQ(vc_inpath_transfer_msg(sockfd_, master_fd_), 0);
    EXPECT_EQ(messages().back(), "vc: vc_inpath_transfer_msg write 2 bb \r\n");
}

TEST_F(InpathTest, kill_frees_the_record_and_closes_nothing)
{
    ASSERT_EQ(alloc(300), 0);
    EXPECT_EQ(vc_inpath_kill_func(300), 0);
    EXPECT_EQ(sessions(), 0);
    EXPECT_TRUE(is_open(sockfd_));
    EXPECT_TRUE(is_open(master_fd_));
    EXPECT_TRUE(is_open(inetd_fd_));
    EXPECT_EQ(messages(),
              (texts{"vc: TTY[300] vc_inpath_kill_func.\n",
                     "vc: TTY[300] vc_inpath_kill_func success 1.\n"}));
}

TEST_F(InpathTest, kill_frees_the_record_of_its_line_only)
{
    ASSERT_EQ(alloc(300), 0);
    ASSERT_EQ(alloc(301), 0);
    EXPECT_EQ(vc_inpath_kill_func(301), 0);
    EXPECT_EQ(sessions(), 1);
    ASSERT_TRUE(type(client_[1], "x"));
    EXPECT_EQ(vc_inpath_read_func(300), 0);
    EXPECT_EQ(arrived(terminal_[1]), "x");
    EXPECT_EQ(vc_inpath_kill_func(300), 0);
}

TEST_F(InpathTest, kill_of_a_bad_line_fails)
{
    EXPECT_EQ(vc_inpath_kill_func(1586), -1);
    EXPECT_EQ(messages(),
              (texts{"vc: TTY[1586] vc_inpath_kill_func.\n",
                     "vc: TTY[1586] vc_inpath_kill_func failed.\n"}));
}
