#include "vc/relay.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "tests/unit/vc/vc_fixture.h"
#include "vc/service.h"
#include "vc/teardown.h"

// Sessions made by hand: connection and terminal are one end of a pair each,
// and the test has the others.
class RelayTest : public VcTest
{
  protected:
    void TearDown() override
    {
        for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
             ttyno = vc_child_after(ttyno)) {
            vc_child_kill(vc_child_at(ttyno));
        }
        for (const int fd : far_ends_) {
            close(fd);
        }
        VcTest::TearDown();
    }

    int pair_end()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        far_ends_.push_back(ends[1]);
        return ends[0];
    }

    vc_child *session(int ttyno, uint32_t protocol = 6)
    {
        auto *child = static_cast<vc_child *>(calloc(1, sizeof(vc_child)));
        child->ttyno = ttyno;
        child->sockfd = pair_end();
        child->master_fd = pair_end();
        child->inetd_fd = inetd_fd_;
        child->reg = plain(AF_INET, 2323, nullptr, protocol);
        vc_child_install(ttyno, child);
        return child;
    }

    // The set as a wait leaves it: these are readable.
    static read_set *readable(const std::vector<int> &fds)
    {
        read_set_clear(&set_);
        for (const int fd : fds) {
            read_set_add(&set_, fd);
        }
        return &set_;
    }

    // Sessions watched in this turn.
    static void watch()
    {
        read_set_clear(&set_);
        relay_watch(&set_);
    }

    std::vector<int> far_ends_;
    static read_set set_;
};

read_set RelayTest::set_;

TEST_F(RelayTest, a_relay_step_without_session_is_logged)
{
    EXPECT_EQ(vc_indata_proc(nullptr), -1);
    EXPECT_EQ(vc_outdata_proc(nullptr), -1);
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "vc: indata-proc, tel not found\r\n",
                              "vc: outdata-proc, tel not found\r\n"}));
}

TEST_F(RelayTest, a_relay_step_gives_back_what_the_callback_says)
{
    vc_child *child = session(300);
    g_calls.read_result = 7;
    g_calls.write_result = 9;
    EXPECT_EQ(vc_indata_proc(child), 7);
    EXPECT_EQ(g_calls.ttyno, 300);
    EXPECT_EQ(vc_outdata_proc(child), 9);
    EXPECT_EQ(g_calls.read, 1);
    EXPECT_EQ(g_calls.write, 1);
    EXPECT_TRUE(messages().empty());
    vc_child_kill(child);
}

static int fail_with_eio(int)
{
    errno = EIO;
    return -5;
}

TEST_F(RelayTest, an_input_step_that_fails_ends_the_session)
{
    vc_child *child = session(300);
    child->reg.read_func = fail_with_eio;
    EXPECT_EQ(vc_indata_proc(child), -1);
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_EQ(messages()[0],
              std::string("vc: indata-proc, tel read fail, err:") +
                  strerror(EIO) + ".\r\n");
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(RelayTest, an_output_step_that_fails_ends_the_session)
{
    vc_child *child = session(300);
    child->reg.write_func = fail_with_eio;
    EXPECT_EQ(vc_outdata_proc(child), -1);
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_EQ(messages()[0],
              std::string("vc: outdata-proc, tel write fail, err:") +
                  strerror(EIO) + ".\r\n");
}

TEST_F(RelayTest, both_descriptors_of_a_relayed_session_are_watched)
{
    const vc_child *child = session(300);
    watch();
    EXPECT_TRUE(child->watched);
    EXPECT_TRUE(read_set_has(&set_, child->sockfd));
    EXPECT_TRUE(read_set_has(&set_, child->master_fd));
}

TEST_F(RelayTest, sessions_of_3_4_5_8_and_11_are_not_watched)
{
    for (const uint32_t protocol : {3u, 4u, 5u, 8u, 11u}) {
        const vc_child *child =
            session(300 + static_cast<int>(protocol), protocol);
        watch();
        EXPECT_FALSE(child->watched) << protocol;
        EXPECT_EQ(set_.highest, -1) << protocol;
    }
}

TEST_F(RelayTest, a_session_without_a_connection_is_not_watched)
{
    vc_child *child = session(300);
    const int sockfd = child->sockfd;
    child->sockfd = -1;
    watch();
    EXPECT_FALSE(child->watched);
    EXPECT_FALSE(read_set_has(&set_, child->master_fd));
    child->sockfd = sockfd;
}

TEST_F(RelayTest, a_session_whose_process_has_ended_is_torn_down)
{
    vc_child_set_exited(session(300));
    session(301);
    watch();
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_NE(vc_child_at(301), nullptr);
    EXPECT_EQ(g_calls.kill, 1);
}

TEST_F(RelayTest, each_way_is_moved_when_its_descriptor_is_readable)
{
    const vc_child *child = session(300);
    watch();
    EXPECT_FALSE(relay_readable(readable({child->sockfd}), 1));
    EXPECT_EQ(g_calls.read, 1);
    EXPECT_EQ(g_calls.write, 0);
    EXPECT_FALSE(relay_readable(readable({child->master_fd}), 1));
    EXPECT_EQ(g_calls.read, 1);
    EXPECT_EQ(g_calls.write, 1);
    EXPECT_TRUE(messages().empty());
}

TEST_F(RelayTest, a_session_that_began_in_this_turn_is_not_looked_at)
{
    const vc_child *child = session(300);
    EXPECT_FALSE(
        relay_readable(readable({child->sockfd, child->master_fd}), 2));
    EXPECT_EQ(g_calls.read + g_calls.write, 0);
}

TEST_F(RelayTest, data_left_over_is_noted_and_logged_with_its_way)
{
    const vc_child *child = session(300);
    g_calls.read_result = 7;
    g_calls.write_result = 9;
    watch();
    EXPECT_TRUE(relay_readable(readable({child->sockfd, child->master_fd}), 2));
    EXPECT_EQ(child->in_pending, 7);
    EXPECT_EQ(child->out_pending, 9);
    EXPECT_EQ(messages(), (std::vector<std::string>{"vc in data ret 7.\r\n",
                                                    "vc out data ret 9.\r\n"}));
}

TEST_F(RelayTest, after_an_input_that_failed_the_output_is_left_alone)
{
    vc_child *child = session(300);
    const std::vector<int> fds = {child->sockfd, child->master_fd};
    child->reg.read_func = fail_with_eio;
    const vc_child *other = session(301);
    watch();
    EXPECT_FALSE(
        relay_readable(readable({fds[0], fds[1], other->master_fd}), 3));
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_EQ(g_calls.write, 1);
    EXPECT_EQ(g_calls.ttyno, 301);
}

TEST_F(RelayTest, only_steps_with_data_left_over_are_called_again)
{
    vc_child *in = session(300);
    vc_child *out = session(301);
    session(302);
    in->in_pending = 1;
    out->out_pending = 1;
    EXPECT_FALSE(relay_retry());
    EXPECT_EQ(g_calls.read, 1);
    EXPECT_EQ(g_calls.write, 1);
    EXPECT_EQ(in->in_pending, 0);
    EXPECT_EQ(out->out_pending, 0);
    EXPECT_FALSE(relay_retry());
    EXPECT_EQ(g_calls.read, 1);
}

TEST_F(RelayTest, a_repeated_step_that_leaves_data_over_is_logged_as_such)
{
    vc_child *child = session(300);
    child->in_pending = 1;
    child->out_pending = 1;
    g_calls.read_result = 3;
    g_calls.write_result = 4;
    EXPECT_TRUE(relay_retry());
    EXPECT_EQ(child->in_pending, 3);
    EXPECT_EQ(child->out_pending, 4);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{"vc in1 data ret 3.\r\n",
                                        "vc out1 data ret 4.\r\n"}));
}

TEST_F(RelayTest, a_repeated_input_that_fails_ends_its_session_alone)
{
    vc_child *child = session(300);
    child->in_pending = 1;
    child->out_pending = 1;
    child->reg.read_func = fail_with_eio;
    session(301)->out_pending = 1;
    EXPECT_FALSE(relay_retry());
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_EQ(g_calls.write, 1);
    EXPECT_EQ(g_calls.ttyno, 301);
}

// Ends the sessions that came in through port 2324.
static int end_the_others(int)
{
    tty_cmsg order = {};
    order.pid = getpid();
    order.port = 2324;
    order.protocol = 6;
    vc_msg_del_listen(&order);
    return 0;
}

TEST_F(RelayTest, a_callback_may_end_other_sessions)
{
    add(plain(AF_INET, 2323, nullptr, 6));
    vc_child *child = session(301);
    child->reg.read_func = end_the_others;
    std::vector<int> fds = {child->sockfd, child->master_fd};
    for (const int ttyno : {300, 302}) {
        vc_child *other = session(ttyno);
        other->reg.listen_port = 2324;
        fds.push_back(other->master_fd);
    }
    watch();
    EXPECT_FALSE(relay_readable(readable(fds), 4));
    // The one before had its turn.
    EXPECT_EQ(g_calls.write, 2);
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_NE(vc_child_at(301), nullptr);
    EXPECT_EQ(vc_child_at(302), nullptr);
}

// Every function that takes the service's lock.
static int use_services(int)
{
    const vc_reg reg = plain(AF_INET, 2325, nullptr, 6);
    tty_cmsg order = {};
    order.pid = getpid();
    order.protocol = 6;
    return vc_service_reg(&reg) == 0 && vc_deal_service_listen(false, 6) == 0 &&
                   vc_deal_service_listen(true, 6) == 0 &&
                   vc_service_update_port(6, 2325, 2326) == 0 &&
                   vc_tos_set(6, AF_INET, 0) == -1 &&
                   vc_msg_stop_listen(&order) == 0 && vc_service_del(2326) == 0
               ? 0
               : -1;
}

static int end_itself_and_fail(int)
{
    tty_cmsg record = {};

    record.pid = getpid();
    record.protocol = 6;
    record.port = 2323;
    vc_msg_del_listen(&record);
    return -1;
}

static int end_itself(int ttyno)
{
    end_itself_and_fail(ttyno);
    return 3;
}

// The record is gone when the callback returns, whatever it returns.
TEST_F(RelayTest, a_callback_may_end_its_own_session)
{
    add(plain(AF_INET, 99, nullptr, 6));
    for (int (*callback)(int) : {end_itself_and_fail, end_itself}) {
        for (const bool in : {true, false}) {
            vc_child *child = session(300);
            (in ? child->reg.read_func : child->reg.write_func) = callback;
            watch();
            messages();
            EXPECT_FALSE(relay_readable(
                readable({in ? child->sockfd : child->master_fd}), 1));
            EXPECT_EQ(vc_child_at(300), nullptr);
            const auto texts = messages();
            EXPECT_EQ(
                std::count(texts.begin(), texts.end(), "vc: kill client 300\n"),
                1);
            EXPECT_EQ(sent().size(), 1u);
        }
    }
}

TEST_F(RelayTest, callbacks_may_register_and_control_services)
{
    add(plain(AF_INET, 2323, nullptr, 6));
    vc_child *child = session(300);
    child->reg.read_func = use_services;
    child->reg.write_func = use_services;
    watch();
    relay_readable(readable({child->sockfd, child->master_fd}), 2);
    EXPECT_NE(vc_child_at(300), nullptr);
    child->reg.kill_func = use_services;
    vc_child_kill(child);
    EXPECT_EQ(service(1), nullptr);
    EXPECT_EQ(service(0)->reg.listen_port, 2323);
}

// A record is shared with the forked children as long as nobody writes to it:
// here that would end the test.
TEST_F(RelayTest, a_turn_in_which_nothing_changes_writes_to_no_record)
{
    void *page = mmap(nullptr, sizeof(vc_child), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    vc_child *own = session(600);
    memcpy(page, static_cast<void *>(own), sizeof *own);
    vc_child_install(600, static_cast<vc_child *>(page));
    watch();

    EXPECT_EQ(mprotect(page, sizeof(vc_child), PROT_READ), 0);
    watch();
    EXPECT_FALSE(relay_readable(&set_, 0));
    EXPECT_FALSE(relay_retry());

    EXPECT_TRUE(vc_child_at(600)->watched);
    vc_child_install(600, own);
    munmap(page, sizeof(vc_child));
}
