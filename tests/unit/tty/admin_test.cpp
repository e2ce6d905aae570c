#include "tests/support/fault_row.h"
#include "tty/admin.h"

#include <signal.h>
#include <sys/stat.h>

#include <functional>
#include <thread>

#include <ttyline/tty.h>

#include "tests/unit/tty/admin_fixture.h"

static const char RELEASE[] = "00 10 04 00 00 00 00 00";

class AdminOperationTest : public AdminTest
{
  protected:
    std::string stored(const char *name) const
    {
        char value[64];
        const char *found = tty_getenv(5, name, value, sizeof value);
        return found != nullptr ? found : "(none)";
    }

    // What one request has put on the wire.
    std::string request_of(const std::function<bool()> &request)
    {
        start();
        EXPECT_TRUE(request());
        EXPECT_TRUE(take());
        return received();
    }

    void service_file(const std::string &content) const
    {
        support::spill(path("/mng/tty/.service_cur.txt"), content);
    }
};

TEST_F(AdminOperationTest, a_successful_login_is_stored_and_sent)
{
    EXPECT_EQ(request_of([] {
                  return tty_login_info_audit(5, true) == 0;
              }),
              "20 00 04 00 05 00 00 00 01 00 04 00 01 00 00 00");
    EXPECT_EQ(stored("LOGSUCC"), "1");
    EXPECT_TRUE(log().empty());
}

TEST_F(AdminOperationTest, a_failed_login_is_stored_and_not_sent)
{
    start();
    EXPECT_EQ(tty_login_info_audit(5, false), 0);
    EXPECT_EQ(stored("LOGSUCC"), "0");
    EXPECT_FALSE(someone_waits());
    EXPECT_TRUE(log().empty());
}

TEST_F(AdminOperationTest, a_login_on_a_bad_line_is_refused_with_two_blanks)
{
    for (const bool success : {true, false}) {
        EXPECT_EQ(tty_login_info_audit(1586, success), -1);
    }
    EXPECT_EQ(tty_login_info_audit(static_cast<unsigned int>(-1), true), -1);
    EXPECT_EQ(
        log(),
        (messages{"ttylib: tty_login_info_audit  param err, ttyno is 1586\n",
                  "ttylib: tty_login_info_audit  param err, ttyno is 1586\n",
                  "ttylib: tty_login_info_audit  param err, ttyno is -1\n"}));
    EXPECT_FALSE(support::exists(info(1586)));
}

TEST_F(AdminOperationTest, lines_0_and_1585_are_good)
{
    start();
    EXPECT_EQ(tty_login_info_audit(1585, true), 0);
    EXPECT_EQ(tty_login_info_audit(0, true), 0);
}

TEST_F(AdminOperationTest, a_login_that_cannot_be_stored_is_not_sent)
{
    fault_row("tty_login_info_audit", "rename", "EIO", "-1",
              "ttylib: %s set tty logsucc fail, 1.\n", "nothing sent");
    start();
    fault::fail("rename", 1, EIO);
    EXPECT_EQ(tty_login_info_audit(5, true), -1);
    EXPECT_EQ(log().back(),
              "ttylib: tty_login_info_audit set tty logsucc fail, 1.\n");
    EXPECT_FALSE(someone_waits());
}

TEST_F(AdminOperationTest, a_failed_login_that_cannot_be_stored_is_reported)
{
    fault_row("tty_login_info_audit", "rename", "EIO", "-1",
              "ttylib: %s set tty logsucc fail, 0.\n", "");
    fault::fail("rename", 1, EIO);
    EXPECT_EQ(tty_login_info_audit(5, false), -1);
    EXPECT_EQ(log().back(),
              "ttylib: tty_login_info_audit set tty logsucc fail, 0.\n");
}

TEST_F(AdminOperationTest, a_login_that_cannot_be_sent_stays_stored)
{
    fault_row("tty_login_info_audit", "connect", "ENOENT", "-1",
              "ttylib: %s set tty logsucc fail\n", "the success stays stored");
    EXPECT_EQ(tty_login_info_audit(5, true), -1);
    EXPECT_EQ(stored("LOGSUCC"), "1");
    EXPECT_EQ(log(), (messages{connect_failed(ENOENT),
                               "ttylib: tty_login_info_audit set tty logsucc "
                               "fail\n"}));
}

TEST_F(AdminOperationTest, the_login_request_takes_any_line)
{
    EXPECT_EQ(request_of([] {
                  return tty_loginsucc_update(80000) == 0;
              }),
              "20 00 04 00 80 38 01 00 01 00 04 00 01 00 00 00");
}

TEST_F(AdminOperationTest, a_login_request_that_fails_is_reported)
{
    fault_row("tty_loginsucc_update", "write", "EIO", "-1",
              "ttylib: msg send fail, err[%d]:%s\n", "");
    start();
    fault::fail("write", 1, EIO);
    EXPECT_EQ(tty_loginsucc_update(5), -1);
    EXPECT_EQ(log(), (messages{send_failed(EIO)}));
}

TEST_F(AdminOperationTest, a_new_speed_is_sent)
{
    EXPECT_EQ(request_of([] {
                  return tty_cfg_update(3, "SPEED", 9600) == 0;
              }),
              "20 00 04 00 03 00 00 00 40 00 04 00 80 25 00 00");
}

TEST_F(AdminOperationTest, a_new_session_timeout_is_sent)
{
    EXPECT_EQ(request_of([] {
                  return tty_cfg_update(3, "SESSION_TIMEOUT", 10) == 0;
              }),
              "20 00 04 00 03 00 00 00 80 00 04 00 0a 00 00 00");
}

TEST_F(AdminOperationTest, a_new_exec_timeout_is_sent)
{
    EXPECT_EQ(request_of([] {
                  return tty_cfg_update(3, "EXEC_TIMEOUT", 0xffffffff) == 0;
              }),
              "20 00 04 00 03 00 00 00 00 01 04 00 ff ff ff ff");
}

TEST_F(AdminOperationTest, a_setting_of_any_line_is_sent)
{
    EXPECT_EQ(request_of([] {
                  return tty_cfg_update(0xfffffffe, "SPEED", 1) == 0;
              }),
              "20 00 04 00 fe ff ff ff 40 00 04 00 01 00 00 00");
}

TEST_F(AdminOperationTest, an_unknown_setting_connects_and_sends_nothing)
{
    start();
    EXPECT_EQ(tty_cfg_update(3, "TIMEOUT", 10), -1);
    ASSERT_TRUE(take());
    EXPECT_EQ(received(), "");
    EXPECT_EQ(log(), (messages{"ttylib:doesn't support TIMEOUT cfg now\n"}));
}

TEST_F(AdminOperationTest, settings_are_compared_exactly)
{
    start();
    for (const char *name : {"speed", "SPEED ", "", "EXEC_TIMEOUTS"}) {
        EXPECT_EQ(tty_cfg_update(3, name, 10), -1) << name;
    }
    EXPECT_EQ(log().size(), 4u);
}

TEST_F(AdminOperationTest, a_setting_without_a_daemon_fails_before_its_name)
{
    fault_row("tty_cfg_update", "connect", "ENOENT", "-1",
              "ttylib: sock connect fail, err[%d]:%s\n",
              "the name is not looked at");
    EXPECT_EQ(tty_cfg_update(3, "TIMEOUT", 10), -1);
    EXPECT_EQ(log(), (messages{connect_failed(ENOENT)}));
}

TEST_F(AdminOperationTest, a_setting_that_cannot_be_sent_is_reported)
{
    fault_row("tty_cfg_update", "write", "EIO", "-1",
              "ttylib: msg send fail, err[%d]:%s\n", "");
    start();
    fault::fail("write", 1, EIO);
    EXPECT_EQ(tty_cfg_update(3, "SPEED", 10), -1);
    EXPECT_EQ(log(), (messages{send_failed(EIO)}));
}

// After each way out the lock is free and no signal is blocked.
TEST_F(AdminOperationTest, every_way_out_frees_lock_and_signals)
{
    fault_row("tty_cfg_update", "write", "EIO", "", "",
              "lock and signals free");
    fault_row("tty_hold_line", "write", "EIO", "", "", "lock and signals free");
    fault_row("tty_release_line", "write", "EIO", "", "",
              "lock and signals free");
    fault_row("tty_loginsucc_update", "write", "EIO", "", "",
              "lock and signals free");
    const auto free_now = [] {
        sigset_t now;
        pthread_sigmask(SIG_SETMASK, nullptr, &now);
        bool taken = false;
        std::thread([&taken] {
            tty_lib_lock();
            taken = true;
            tty_lib_unlock();
        }).join();
        return taken && sigismember(&now, SIGTERM) == 0;
    };
    tty_cfg_update(3, "SPEED", 10); // cannot connect
    EXPECT_TRUE(free_now());
    start();
    tty_cfg_update(3, "TIMEOUT", 10); // no such setting
    EXPECT_TRUE(free_now());
    for (const auto &request : std::vector<std::function<int()>>{
             [] {
                 return tty_cfg_update(3, "SPEED", 10);
             },
             [] {
                 return tty_hold_line(3, 10);
             },
             [] {
                 return tty_release_line();
             },
             [] {
                 return tty_loginsucc_update(3);
             }}) {
        EXPECT_EQ(request(), 0);
        EXPECT_TRUE(free_now());
        fault::fail("write", 1, EIO, 1, fault::only_path("socket:"));
        request();
        EXPECT_TRUE(free_now());
        fault::reset();
        tty_release_line();
    }
}

TEST_F(AdminOperationTest, a_hold_is_sent)
{
    EXPECT_EQ(request_of([] {
                  return tty_hold_line(300, 60) == 0;
              }),
              "20 00 04 00 2c 01 00 00 00 08 04 00 3c 00 00 00");
}

TEST_F(AdminOperationTest, a_hold_may_except_no_line_for_half_an_hour)
{
    EXPECT_EQ(request_of([] {
                  return tty_hold_line(1586, 1800) == 0;
              }),
              "20 00 04 00 32 06 00 00 00 08 04 00 08 07 00 00");
}

TEST_F(AdminOperationTest, a_hold_out_of_range_is_refused_before_connecting)
{
    start();
    EXPECT_EQ(tty_hold_line(1587, 1801), -1);
    EXPECT_EQ(tty_hold_line(0, 1801), -1);
    EXPECT_EQ(tty_hold_line(static_cast<unsigned int>(-1), 0), -1);
    EXPECT_EQ(tty_hold_line(0, static_cast<unsigned int>(-1)), -1);
    EXPECT_EQ(log(), (messages{"ttylib: param err, except_ttyno is 1587\n",
                               "ttylib: param err, hold_time is 1801\n",
                               "ttylib: param err, except_ttyno is -1\n",
                               "ttylib: param err, hold_time is -1\n"}));
    EXPECT_FALSE(someone_waits());
    EXPECT_EQ(tty_hold_line(0, 0), 0);
}

TEST_F(AdminOperationTest, a_second_hold_is_refused_before_connecting)
{
    start();
    EXPECT_EQ(tty_hold_line(300, 60), 0);
    EXPECT_EQ(tty_hold_line(301, 60), -1);
    EXPECT_EQ(log(), (messages{"ttylib: locked request has sent.\n"}));
    ASSERT_TRUE(take());
    EXPECT_EQ(received(), "20 00 04 00 2c 01 00 00 00 08 04 00 3c 00 00 00");
    EXPECT_EQ(tty_release_line(), 0);
    EXPECT_EQ(received(), RELEASE);
    EXPECT_EQ(tty_hold_line(301, 60), 0);
}

TEST_F(AdminOperationTest, the_range_is_tested_before_the_earlier_hold)
{
    start();
    EXPECT_EQ(tty_hold_line(300, 60), 0);
    EXPECT_EQ(tty_hold_line(1587, 60), -1);
    EXPECT_EQ(log(), (messages{"ttylib: param err, except_ttyno is 1587\n"}));
}

TEST_F(AdminOperationTest, a_hold_without_a_daemon_does_not_count)
{
    fault_row("tty_hold_line", "connect", "ENOENT", "-1", "",
              "the next hold is sent");
    EXPECT_EQ(tty_hold_line(300, 60), -1);
    start();
    EXPECT_EQ(tty_hold_line(300, 60), 0);
}

TEST_F(AdminOperationTest, a_hold_that_cannot_be_sent_counts)
{
    fault_row("tty_hold_line", "write", "EIO", "-1",
              "ttylib: msg send fail, err[%d]:%s\n",
              "the next hold is refused, as one was sent");
    start();
    fault::fail("write", 1, EIO, 1, fault::only_path("socket:"));
    EXPECT_EQ(tty_hold_line(300, 60), -1);
    EXPECT_EQ(tty_hold_line(300, 60), -1);
    EXPECT_EQ(log(), (messages{send_failed(EIO),
                               "ttylib: locked request has sent.\n"}));
}

// A thread that gets the lock next must find the hold counted.
TEST_F(AdminOperationTest, a_hold_counts_before_signals_and_lock_are_free)
{
    static int second;
    start();
    second = 0;
    fault::run(
        "pthread_sigmask", 1,
        [] {
            second = tty_hold_line(301, 60);
        },
        1, fault::only_what(SIG_SETMASK));
    EXPECT_EQ(tty_hold_line(300, 60), 0);
    EXPECT_EQ(second, -1);
    EXPECT_EQ(log(), (messages{"ttylib: locked request has sent.\n"}));
}

TEST_F(AdminOperationTest, a_release_is_sent_without_a_hold)
{
    EXPECT_EQ(request_of([] {
                  return tty_release_line() == 0;
              }),
              RELEASE);
}

TEST_F(AdminOperationTest, a_release_that_cannot_be_sent_ends_the_hold)
{
    fault_row("tty_release_line", "write", "EIO", "-1",
              "ttylib: msg send fail, err[%d]:%s\n", "the next hold is sent");
    start();
    EXPECT_EQ(tty_hold_line(300, 60), 0);
    fault::fail("write", 1, EIO, 1, fault::only_path("socket:"));
    EXPECT_EQ(tty_release_line(), -1);
    EXPECT_EQ(log(), (messages{send_failed(EIO)}));
    EXPECT_EQ(tty_hold_line(300, 60), 0);
}

TEST_F(AdminOperationTest, a_release_without_a_daemon_is_reported)
{
    fault_row("tty_release_line", "connect", "ENOENT", "-1",
              "ttylib: sock connect fail, err[%d]:%s\n", "");
    EXPECT_EQ(tty_release_line(), -1);
    EXPECT_EQ(log(), (messages{connect_failed(ENOENT)}));
}

TEST_F(AdminOperationTest, requests_from_8_threads_arrive_whole)
{
    constexpr unsigned int THREADS = 8;
    constexpr unsigned int REQUESTS = 200;
    start();
    ASSERT_EQ(tty_release_line(), 0);
    ASSERT_TRUE(take());
    EXPECT_EQ(received(), RELEASE);
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < THREADS; t++) {
        threads.emplace_back([t] {
            for (unsigned int i = 0; i < REQUESTS; i++) {
                EXPECT_EQ(tty_cfg_update(t, "SPEED", i), 0);
            }
        });
    }
    struct {
        uint16_t type;
        uint16_t length;
        uint32_t value;
    } items[2];
    uint32_t next[THREADS] = {};
    for (unsigned int i = 0; i < THREADS * REQUESTS; i++) {
        ASSERT_EQ(recv(connection_, items, sizeof items, MSG_WAITALL),
                  static_cast<ssize_t>(sizeof items));
        EXPECT_EQ(items[0].type, 32);
        EXPECT_EQ(items[1].type, 64);
        ASSERT_LT(items[0].value, THREADS);
        EXPECT_EQ(items[1].value, next[items[0].value]++);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(received(), "");
}

TEST_F(AdminOperationTest, requests_of_parent_and_child_arrive_whole)
{
    constexpr unsigned int REQUESTS = 500;
    start();
    ASSERT_EQ(tty_release_line(), 0);
    ASSERT_TRUE(take());
    EXPECT_EQ(received(), RELEASE);
    const pid_t pid = fork();
    if (pid == 0) {
        for (unsigned int i = 0; i < REQUESTS; i++) {
            if (tty_cfg_update(1, "SPEED", i) != 0) {
                _exit(1);
            }
        }
        _exit(0);
    }
    std::thread parent([] {
        for (unsigned int i = 0; i < REQUESTS; i++) {
            EXPECT_EQ(tty_cfg_update(0, "SPEED", i), 0);
        }
    });
    uint32_t items[4];
    uint32_t next[2] = {};
    for (unsigned int i = 0; i < 2 * REQUESTS; i++) {
        ASSERT_EQ(recv(connection_, items, sizeof items, MSG_WAITALL),
                  static_cast<ssize_t>(sizeof items));
        EXPECT_EQ(items[0], 0x00040020u);
        EXPECT_EQ(items[2], 0x00040040u);
        ASSERT_LT(items[1], 2u);
        EXPECT_EQ(items[3], next[items[1]]++);
    }
    parent.join();
    EXPECT_EQ(support::wait_child(pid), 0);
}

TEST_F(AdminOperationTest, without_the_file_only_service_4_is_enabled)
{
    fault_row("tty_get_service", "fopen", "ENOENT", "1 for service 4, else 0",
              "ttylib: open file %s fail errno:%d, %s\n", "");
    const std::string file = path("/mng/tty/.service_cur.txt");
    const std::string message = "ttylib: open file " + file +
                                " fail errno:2, " + strerror(ENOENT) + "\n";
    EXPECT_EQ(tty_get_service(4), 1);
    EXPECT_EQ(tty_get_service(3), 0);
    EXPECT_EQ(tty_get_service(36), 0);
    EXPECT_EQ(log(), (messages{message, message, message}));
}

TEST_F(AdminOperationTest, a_bit_of_the_mask_enables_its_service)
{
    service_file("16\n");
    for (unsigned int service = 0; service < 32; service++) {
        EXPECT_EQ(tty_get_service(service), service == 4 ? 1 : 0) << service;
    }
    EXPECT_TRUE(log().empty());
}

TEST_F(AdminOperationTest, the_service_number_counts_modulo_32)
{
    service_file("16");
    EXPECT_EQ(tty_get_service(36), 1);
    EXPECT_EQ(tty_get_service(35), 0);
    EXPECT_EQ(tty_get_service(0xffffffe4), 1);
}

TEST_F(AdminOperationTest, bit_31_is_a_service_too)
{
    service_file("2147483648");
    EXPECT_EQ(tty_get_service(31), 1);
    EXPECT_EQ(tty_get_service(30), 0);
}

TEST_F(AdminOperationTest, of_a_number_that_is_too_large_32_bits_count)
{
    service_file("4294967300");
    for (unsigned int service = 0; service < 32; service++) {
        EXPECT_EQ(tty_get_service(service), service == 2 ? 1 : 0) << service;
    }
}

TEST_F(AdminOperationTest, a_file_without_a_number_enables_nothing)
{
    for (const char *content : {"", "none", "\n"}) {
        service_file(content);
        EXPECT_EQ(tty_get_service(4), 0) << content;
    }
    EXPECT_TRUE(log().empty());
}

TEST_F(AdminOperationTest, the_number_may_stand_after_white_space)
{
    service_file(" \n\t5 rest");
    EXPECT_EQ(tty_get_service(0), 1);
    EXPECT_EQ(tty_get_service(1), 0);
    EXPECT_EQ(tty_get_service(2), 1);
}

TEST_F(AdminOperationTest, what_stands_behind_the_number_may_be_of_any_length)
{
    service_file("16 " + std::string(5000, 'x'));
    EXPECT_EQ(tty_get_service(4), 1);
    EXPECT_EQ(tty_get_service(0), 0);
}

TEST_F(AdminOperationTest, white_space_before_the_number_may_be_of_any_length)
{
    for (const size_t length : {126u, 127u, 128u, 300u, 5000u}) {
        service_file(std::string(length, ' ') + "16\n");
        EXPECT_EQ(tty_get_service(4), 1) << length;
        EXPECT_EQ(tty_get_service(0), 0) << length;
    }
    service_file(std::string(5000, '\n'));
    EXPECT_EQ(tty_get_service(4), 0);
}

TEST_F(AdminOperationTest, a_number_that_is_read_in_pieces_is_one)
{
    fault_row("tty_get_service", "read", "short", "as the whole number says",
              "", "");
    service_file("  16 3");
    fault::shorten("read", 1, 1, fault::ALWAYS,
                   fault::only_path(".service_cur"));
    EXPECT_EQ(tty_get_service(4), 1);
    EXPECT_EQ(tty_get_service(0), 0);
}

TEST_F(AdminOperationTest, a_file_that_cannot_be_opened_enables_nothing)
{
    fault_row("tty_get_service", "fopen", "ELOOP", "0",
              "ttylib: open file %s fail errno:%d, %s\n", "");
    const std::string file = path("/mng/tty/.service_cur.txt");
    ASSERT_EQ(symlink(file.c_str(), file.c_str()), 0);
    EXPECT_EQ(tty_get_service(4), 0);
    EXPECT_EQ(log(), (messages{"ttylib: open file " + file +
                               " fail errno:40, " + strerror(ELOOP) + "\n"}));
}

TEST_F(AdminOperationTest, a_directory_in_place_of_the_file_enables_nothing)
{
    fault_row("tty_get_service", "read", "EISDIR", "0", "", "the file closed");
    ASSERT_EQ(mkdir(path("/mng/tty/.service_cur.txt").c_str(), 0777), 0);
    EXPECT_EQ(tty_get_service(4), 0);
    // It can be opened for reading, which is all that is asked of it.
    EXPECT_TRUE(log().empty());
}

TEST_F(AdminOperationTest, a_service_file_path_of_99_characters_fits)
{
    const std::string name = "/mng/tty/.service_cur.txt";
    const std::string root = move_runtime_directory(name, 99);
    support::spill(root + name, "8");
    EXPECT_EQ(tty_get_service(3), 1);
}

TEST_F(AdminOperationTest, a_service_file_path_that_does_not_fit_is_reported)
{
    const std::string name = "/mng/tty/.service_cur.txt";
    const std::string root = move_runtime_directory(name, 100);
    EXPECT_EQ(tty_get_service(4), 0);
    EXPECT_NE(support::slurp(root + "/mng/tty/.tty_lib_dump.txt")
                  .find(" ttylib:tty_get_service make path "
                        "/mng/tty/.service_cur.txt fail\r\n"),
              std::string::npos);
}
