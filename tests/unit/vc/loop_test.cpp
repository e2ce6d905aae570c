// The loop's phases when system calls fail, in a process of its own.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>

#include "tests/unit/vc/loop_fixture.h"

TEST_F(LoopTest, a_wait_that_fails_is_logged_and_followed_by_a_pause)
{
    fault_row("vc_service_start", "select", "ENOMEM",
              "the loop goes on, after a pause",
              "vc: select error, ret:%d, error:%s.\r\n", "");
    run_loop([] {
        fault::fail("select", 1, ENOMEM, 3);
        fault::run("usleep", 1, note_pause, fault::ALWAYS);
    });
    const std::string error = std::string("vc: select error, ret:-1, error:") +
                              strerror(ENOMEM) + ".\r\n";
    EXPECT_TRUE(says(error, 3));
    EXPECT_TRUE(says("test: pause\n", 3));
    EXPECT_EQ(after(error), "test: pause\n");
}

TEST_F(LoopTest, an_interrupted_wait_and_a_bad_descriptor_say_nothing)
{
    fault_row("vc_service_start", "select", "EINTR, EBADF",
              "the loop goes on at once", "", "");
    run_loop([] {
        fault::fail("select", 1, EINTR);
        fault::fail("select", 2, EBADF);
        fault::run("usleep", 1, note_pause, fault::ALWAYS);
        fault::run(
            "select", 3,
            [] {
                vc_debug_msg("test: third wait\n");
            },
            1);
    });
    EXPECT_TRUE(says("test: third wait\n"));
    for (const std::string &text : loop_messages()) {
        EXPECT_EQ(text.find("vc: select error"), std::string::npos);
        EXPECT_NE(text, "test: pause\n");
    }
}

TEST_F(LoopTest, a_wait_that_times_out_pauses_and_says_nothing)
{
    run_loop([] {
        fault::result("select", 1, 0);
        fault::run("usleep", 1, note_pause, fault::ALWAYS);
        fault::run(
            "select", 2,
            [] {
                vc_debug_msg("test: second wait\n");
            },
            1);
    });
    EXPECT_TRUE(says("test: second wait\n"));
    EXPECT_TRUE(says("test: pause\n"));
    for (const std::string &text : loop_messages()) {
        EXPECT_EQ(text.find("vc: select error"), std::string::npos);
    }
}

// A session whose terminal has a byte, and its connection if that has input;
// its callbacks take a byte and say so.
static void add_readable_session(int ttyno, bool has_input)
{
    auto *child = static_cast<vc_child *>(calloc(1, sizeof(vc_child)));
    int connection[2];
    int terminal[2];

    if (socketpair(AF_UNIX, SOCK_STREAM, 0, connection) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM, 0, terminal) != 0 ||
        (has_input && write(connection[1], "i", 1) != 1) ||
        write(terminal[1], "o", 1) != 1) {
        _exit(8);
    }
    child->ttyno = ttyno;
    child->sockfd = connection[0];
    child->master_fd = terminal[0];
    child->inetd_fd = -1;
    child->reg.protocol = 6;
    child->reg.read_func = [](int line) {
        char byte = 0;
        vc_debug_msg("test: in %d\n", line);
        return read(vc_child_at(line)->sockfd, &byte, 1) == 1 ? 0 : -1;
    };
    child->reg.write_func = [](int line) {
        char byte = 0;
        vc_debug_msg("test: out %d\n", line);
        return read(vc_child_at(line)->master_fd, &byte, 1) == 1 ? 0 : -1;
    };
    vc_child_install(ttyno, child);
}

TEST_F(LoopTest, all_that_is_readable_is_moved_before_the_next_wait)
{
    run_loop([] {
        add_readable_session(TTY_LINES - 1, false);
        for (const int ttyno : {258, 259, 300, 1421}) {
            add_readable_session(ttyno, true);
        }
        fault::run(
            "select", 1,
            [] {
                vc_debug_msg("test: wait\n");
            },
            2);
    });
    ASSERT_TRUE(says("test: wait\n", 2));
    std::string seen;
    for (const std::string &text : loop_messages()) {
        if (text.find("test: ") == 0) {
            seen += text.substr(6);
        }
    }
    EXPECT_EQ(seen, "wait\nin 258\nout 258\nin 259\nout 259\nin 300\n"
                    "out 300\nin 1421\nout 1421\nout 1585\nwait\n");
}

// The second announcement of the first turn fails: a connection that sessions
// and port updates know by its number is lost.
static void lose_announced_connection()
{
    fault::run(
        "waitpid", 1,
        [] {
            const vc_reg late = plain(AF_INET, 25, nullptr, 6);
            vc_service_reg(&late);
        },
        1);
    fault::fail("write", 3, EPIPE, 1, fault::only_path("socket:"));
}

static int g_number;

// What somebody who knows the number only meets there.
static const char *behind(int number)
{
    const tty_cmsg record = {};

    if (send(number, &record, sizeof record, MSG_NOSIGNAL) > 0) {
        return "connection";
    }
    return errno == EPIPE ? "broken pipe" : "stranger";
}

static void look_at_the_number()
{
    g_number = g_vc_tty_socket;
    // The lowest number that is free.
    static_cast<void>(!dup(0));
    vc_debug_msg("test: meanwhile %s\n", behind(g_number));
}

static void look_at_the_number_again()
{
    vc_debug_msg("test: %s, then %s\n",
                 g_vc_tty_socket == g_number ? "same number" : "another number",
                 behind(g_number));
}

static void lose_it_and_look()
{
    lose_announced_connection();
    fault::run("usleep", 1, look_at_the_number, 1);
    fault::run("select", 1, look_at_the_number_again, 1);
}

// A session's end and a port update must not reach another file.
TEST_F(LoopTest, a_lost_connections_number_is_taken_until_the_next_one_has_it)
{
    run_loop(lose_it_and_look);
    EXPECT_TRUE(says("test: meanwhile broken pipe\n"));
    EXPECT_TRUE(says("test: same number, then connection\n"));
}

TEST_F(LoopTest, without_a_placeholder_the_old_connection_keeps_the_number)
{
    fault_row("vc_disconnect", "socketpair", "EMFILE",
              "the loop goes on, after a pause", "",
              "the number stands for the old connection, shut down");
    fault_row("vc_disconnect", "dup3", "EBUSY",
              "the loop goes on, after a pause", "",
              "the number stands for the old connection, shut down");
    for (const char *call : {"socketpair", "dup3"}) {
        run_loop([call] {
            lose_it_and_look();
            fault::fail(call, 1, EMFILE);
        });
        EXPECT_TRUE(says("test: meanwhile broken pipe\n")) << call;
        EXPECT_TRUE(says("test: same number, then connection\n")) << call;
        stop_loop();
    }
}

TEST_F(LoopTest, a_connection_that_cannot_be_moved_keeps_its_number)
{
    fault_row("vc_move_connection", "dup3", "EBUSY", "the new number", "",
              "older sessions do not reach the inetd");
    run_loop([] {
        lose_it_and_look();
        fault::fail("dup3", 2, EBUSY);
    });
    EXPECT_TRUE(says("test: meanwhile broken pipe\n"));
    EXPECT_TRUE(says("test: another number, then broken pipe\n"));
}

TEST_F(LoopTest, a_first_announcement_that_fails_renews_the_connection)
{
    fault_row("vc_service_start", "write", "EPIPE",
              "the loop goes on, after a pause", "",
              "the connection to the inetd is made anew");
    run_loop([] {
        fault::fail("write", 1, EPIPE, 1, fault::only_path("socket:"));
        fault::run("usleep", 1, note_pause, fault::ALWAYS);
    });
    EXPECT_TRUE(says("test: pause\n"));
    EXPECT_TRUE(says("(vc:" + std::to_string(pid_) +
                     "): after vc_open_listen ret 0\n"));
    const auto texts = loop_messages();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                            [](const std::string &text) {
                                return text.find("): connect inetd vc_fd") !=
                                       std::string::npos;
                            }),
              2);
}

TEST_F(LoopTest, an_inetd_that_cannot_be_reached_is_tried_again)
{
    fault_row("vc_service_start", "socket", "EMFILE",
              "the loop goes on, after a pause",
              "vc: connect inetd fail, errno:%d, %s\n", "");
    fault_row("vc_service_start", "connect", "ECONNREFUSED",
              "the loop goes on, after a pause",
              "vc: connect inetd fail, errno:%d, %s\n", "");
    run_loop([] {
        fault::fail("socket", 1, EMFILE, 2);
        fault::fail("connect", 1, ECONNREFUSED, 2);
        fault::run("usleep", 1, note_pause, 4);
    });
    EXPECT_TRUE(says("(vc:" + std::to_string(pid_) +
                     "): after vc_open_listen ret 0\n"));
    const auto failed = [](int error) {
        return "vc: connect inetd fail, errno:" + std::to_string(error) + ", " +
               strerror(error) + "\n";
    };
    EXPECT_TRUE(says(failed(EMFILE), 2));
    EXPECT_TRUE(says(failed(ECONNREFUSED), 2));
    EXPECT_TRUE(says("test: pause\n", 4));
    EXPECT_EQ(after(failed(EMFILE)), "test: pause\n");
}

TEST_F(LoopTest, a_record_that_cannot_be_read_renews_the_connection)
{
    fault_row("vc_service_start", "recv", "ECONNRESET",
              "the loop goes on, after a pause",
              "(vc:%d):%s before close fd %d.\r\n",
              "every service is announced again, on a new connection");
    run_loop([] {
        fault::fail("recv", 1, ECONNRESET);
        fault::run("usleep", 1, note_pause, 1);
    });
    const int first = accept(inetd_, nullptr, nullptr);
    const tty_cmsg record = {};
    ASSERT_EQ(send(first, &record, sizeof record, MSG_NOSIGNAL),
              static_cast<ssize_t>(sizeof record));
    EXPECT_TRUE(says("test: pause\n"));
    EXPECT_TRUE(says(
        "(vc:" + std::to_string(pid_) + "): after vc_open_listen ret 0\n", 2));
    EXPECT_TRUE(says("vc:add port:23, sock_type:2, protocol:6.\n", 2));
    EXPECT_TRUE(says("vc:add port:24, sock_type:2, protocol:6.\n", 2));
    EXPECT_NE(after("vc: recv fail ret -1, err[104]:"), "");
    const std::string closing =
        "(vc:" + std::to_string(pid_) + "):vc_service_start before close fd ";
    const auto texts = loop_messages();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                            [&](const std::string &text) {
                                return text.find(closing) == 0;
                            }),
              1);
    close(first);
}

// The number stays on show until the next connection has announced, which a
// port update in between runs into.
TEST_F(LoopTest, a_later_announcement_that_fails_leaves_the_number)
{
    fault_row("vc_service_start", "write", "EPIPE",
              "the loop goes on, after a pause", "",
              "the closed connection's number, until the new one is made");
    run_loop([] {
        lose_announced_connection();
        fault::run(
            "usleep", 1,
            [] {
                vc_debug_msg("test: number %s\n",
                             g_vc_tty_socket >= 0 ? "kept" : "cleared");
                vc_debug_msg("test: update %d\n",
                             vc_service_update_port(6, 23, 26));
            },
            1);
    });
    EXPECT_TRUE(says("test: number kept\n"));
    EXPECT_TRUE(says("test: update -1\n"));
    EXPECT_TRUE(says(
        "(vc:" + std::to_string(pid_) + "): after vc_open_listen ret 0\n", 2));
}

TEST_F(LoopTest, watched_descriptors_are_made_blocking)
{
    fault_row("vc_service_start", "select", "EINTR", "the loop goes on at once",
              "", "watched descriptors are made blocking again");
    run_loop([] {
        fault::run(
            "waitpid", 1,
            [] {
                fcntl(g_vc_tty_socket, F_SETFL, O_NONBLOCK);
            },
            1);
        fault::fail("select", 1, EINTR);
        fault::run(
            "waitpid", 2,
            [] {
                const int flags = fcntl(g_vc_tty_socket, F_GETFL);
                vc_debug_msg("test: %s\n", (flags & O_NONBLOCK) == 0
                                               ? "blocking"
                                               : "not blocking");
            },
            1);
    });
    EXPECT_TRUE(says("test: blocking\n"));
}

// Between the last look at the services and the wait: the signal is handled
// and forgotten.
TEST_F(LoopTest, a_wake_up_just_before_the_wait_is_seen_at_the_next_turn)
{
    run_loop([] {
        fault::run(
            "select", 1,
            [] {
                vc_deal_service_listen(false, 6);
                vc_deal_service_listen(true, 6);
                vc_debug_msg("test: woken\n");
            },
            1);
    });
    const int connection = accept4(inetd_, nullptr, nullptr, SOCK_CLOEXEC);
    tty_cmsg record;
    const auto next_record = [&](int milliseconds) {
        pollfd one = {connection, POLLIN, 0};
        return poll(&one, 1, milliseconds) == 1 &&
               recv(connection, &record, sizeof record, MSG_WAITALL) ==
                   static_cast<ssize_t>(sizeof record);
    };
    // The first announcement of both services.
    ASSERT_TRUE(next_record(10000));
    ASSERT_TRUE(next_record(10000));
    ASSERT_TRUE(says("test: woken\n"));
    EXPECT_FALSE(next_record(300));
    kill(pid_, SIGHUP);
    EXPECT_TRUE(next_record(10000));
    EXPECT_TRUE(next_record(10000));
    close(connection);
}
