#include "tty/env.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include <ttyline/tty.h>

#include "common/keys.h"
#include "tests/support/fault.h"
#include "tests/support/privroot.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/env_fixture.h"
#include "tests/unit/tty/lock_holder.h"

static std::string label(const char *call)
{
    return std::string(call) + "_" + std::to_string(getpid());
}

class EnvCheck : public tty_test
{
  protected:
    static int check_set(unsigned int ttyno, const char *name,
                         const char *value)
    {
        return tty_env_check(ttyno, name, value, 2);
    }

    static int check_get(unsigned int ttyno, const char *name)
    {
        return tty_env_check(ttyno, name, nullptr, 1);
    }
};

TEST_F(EnvCheck, modes_are_one_for_get_and_two_for_set)
{
    EXPECT_EQ(TTY_ENV_GET, 1);
    EXPECT_EQ(TTY_ENV_SET, 2);
}

TEST_F(EnvCheck, lines_are1586_and_the_reserved_ones80000_and80001)
{
    EXPECT_EQ(TTY_LINES, 1586);
    EXPECT_EQ(TTY_LINE_RESERVED0, 80000);
    EXPECT_EQ(TTY_LINE_RESERVED1, 80001);
}

TEST_F(EnvCheck, accepts_lines0_to1585_and_the_two_reserved_ones)
{
    for (unsigned int ttyno = 0; ttyno <= 1585; ttyno++) {
        ASSERT_EQ(check_set(ttyno, "HOME", "x"), 1) << ttyno;
    }
    for (const unsigned int ttyno : {80000u, 80001u}) {
        EXPECT_EQ(check_set(ttyno, "HOME", "x"), 1);
        EXPECT_EQ(check_get(ttyno, "HOME"), 1);
    }
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(EnvCheck, refuses_any_other_line_with_two_messages)
{
    for (const int ttyno : {1586, 79999, 80002, -1, -2147483647 - 1, 65536}) {
        unlink(path("/mng/tty/.tty_lib_dump.txt").c_str());
        const std::string rest =
            ": invalid ttyno(" + std::to_string(ttyno) + ")\n";
        EXPECT_EQ(check_set(static_cast<unsigned int>(ttyno), "HOME", "x"), 0);
        EXPECT_EQ(check_get(static_cast<unsigned int>(ttyno), "HOME"), 0);
        EXPECT_EQ(
            tty_log(),
            messages({"tty_env_check" + rest, label("tty_setenv") + rest,
                      "tty_env_check" + rest, label("tty_getenv") + rest}));
    }
}

TEST_F(EnvCheck, refuses_a_null_name)
{
    EXPECT_EQ(check_set(LINE, nullptr, "x"), 0);
    EXPECT_EQ(check_get(LINE, nullptr), 0);
    EXPECT_EQ(tty_log(),
              messages({label("tty_setenv") + ": invalid name(null)\n",
                        label("tty_getenv") + ": invalid name(null)\n"}));
}

TEST_F(EnvCheck, refuses_to_set_a_null_value)
{
    EXPECT_EQ(check_set(LINE, "LOGNAME", nullptr), 0);
    EXPECT_EQ(tty_log(), messages({label("tty_setenv") +
                                   ": invalid value(name=LOGNAME)\n"}));
}

TEST_F(EnvCheck, accepts_an_empty_value_and_for_a_get_a_null_one)
{
    EXPECT_EQ(check_set(LINE, "LOGNAME", ""), 1);
    EXPECT_EQ(check_get(LINE, "LOGNAME"), 1);
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(EnvCheck, any_mode_but_set_is_a_get)
{
    for (const int mode : {0, 1, 3, -1}) {
        EXPECT_EQ(tty_env_check(LINE, "LOGNAME", nullptr, mode), 1);
        unlink(path("/mng/tty/.tty_lib_dump.txt").c_str());
        EXPECT_EQ(tty_env_check(LINE, nullptr, nullptr, mode), 0);
        EXPECT_EQ(tty_log(),
                  messages({label("tty_getenv") + ": invalid name(null)\n"}));
    }
}

TEST_F(EnvCheck, accepts_every_key)
{
    for (const char *name : tty_envs) {
        EXPECT_EQ(check_set(LINE, name, "x"), 1) << name;
    }
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(EnvCheck, refuses_what_is_not_exactly_a_key)
{
    for (const char *name : {"columns", "COLUMN", "COLUMNS ", "COLUMNS=", "",
                             " COLUMNS", "VKD_", "VKD_SWITC", "Columns"}) {
        unlink(path("/mng/tty/.tty_lib_dump.txt").c_str());
        const std::string refusal =
            std::string("tty_env: invalid name(") + name + ")\n";
        EXPECT_EQ(check_set(LINE, name, "x"), 0) << name;
        EXPECT_EQ(check_get(LINE, name), 0) << name;
        EXPECT_EQ(tty_log(), messages({refusal, refusal}));
    }
}

TEST_F(EnvCheck, reads_the_size_of_the_table_afresh)
{
    g_tty_env_size = 1;
    EXPECT_EQ(check_get(LINE, "COLUMNS"), 1);
    EXPECT_EQ(check_get(LINE, "HOME"), 0);
    g_tty_env_size = 0;
    EXPECT_EQ(check_get(LINE, "COLUMNS"), 0);
    g_tty_env_size = 94;
    EXPECT_EQ(check_get(LINE, "EXECNUM"), 1);
}

TEST_F(EnvCheck, reports_the_first_failure_only)
{
    check_set(1586, nullptr, nullptr);
    check_set(LINE, nullptr, nullptr);
    check_set(LINE, "NONSENSE", nullptr);
    check_set(LINE, "NONSENSE", "x");
    EXPECT_EQ(
        tty_log(),
        messages({"tty_env_check: invalid ttyno(1586)\n",
                  label("tty_setenv") + ": invalid ttyno(1586)\n",
                  label("tty_setenv") + ": invalid name(null)\n",
                  label("tty_setenv") + ": invalid value(name=NONSENSE)\n",
                  "tty_env: invalid name(NONSENSE)\n"}));
}

TEST_F(Env, what_was_set_is_read)
{
    EXPECT_EQ(tty_setenv(LINE, "LOGNAME", "alice"), 0);
    EXPECT_EQ(get(LINE, "LOGNAME"), "alice");
    EXPECT_EQ(tty_setenv(LINE, "LOGNAME", "bob"), 0);
    EXPECT_EQ(get(LINE, "LOGNAME"), "bob");
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(Env, first_and_last_line_and_the_reserved_ones_have_files)
{
    for (const unsigned int ttyno : {1u, 1585u, 80000u, 80001u}) {
        EXPECT_EQ(tty_setenv(ttyno, "HOME", "x"), 0);
        EXPECT_EQ(get(ttyno, "HOME"), "x");
        EXPECT_EQ(support::slurp(info(ttyno)), "HOME=x\r\n");
    }
}

TEST_F(Env, refused_set_gives_minus_one_and_creates_nothing)
{
    EXPECT_EQ(tty_setenv(1586, "HOME", "x"), -1);
    EXPECT_EQ(tty_setenv(LINE, nullptr, "x"), -1);
    EXPECT_EQ(tty_setenv(LINE, "HOME", nullptr), -1);
    EXPECT_EQ(tty_setenv(LINE, "NONSENSE", "x"), -1);
    EXPECT_EQ(tty_log().size(), 5u);
    EXPECT_FALSE(support::exists(info(1586)));
    EXPECT_FALSE(support::exists(info(LINE)));
    EXPECT_FALSE(support::exists(info(LINE) + ".lock"));
}

TEST_F(Env, refused_get_gives_null_and_leaves_the_buffer)
{
    EXPECT_EQ(get(LINE, "NONSENSE"), "(null)");
    EXPECT_TRUE(untouched());
    EXPECT_EQ(get(1586, "HOME"), "(null)");
    EXPECT_TRUE(untouched());
    EXPECT_EQ(get(LINE, nullptr), "(null)");
    EXPECT_TRUE(untouched());
    EXPECT_EQ(tty_log(),
              messages({"tty_env: invalid name(NONSENSE)\n",
                        "tty_env_check: invalid ttyno(1586)\n",
                        label("tty_getenv") + ": invalid ttyno(1586)\n",
                        label("tty_getenv") + ": invalid name(null)\n"}));
}

TEST_F(Env, absent_value_gives_null_and_a_cleared_buffer)
{
    tty_setenv(LINE, "HOME", "x");
    EXPECT_EQ(get(LINE, "TERM", 64), "(null)");
    EXPECT_EQ(std::string(buf, 64), std::string(64, '\0'));
    EXPECT_EQ(buf[64], 0x5a);
}

TEST_F(Env, store_that_fails_gives_minus_one_or_null)
{
    ASSERT_EQ(mkdir((info(LINE) + ".lock").c_str(), 0777), 0);
    EXPECT_EQ(tty_setenv(LINE, "HOME", "x"), -1);
    EXPECT_EQ(get(LINE, "HOME"), "(null)");
    EXPECT_EQ(tty_log().size(), 2u);
}

TEST_F(Env, empty_text_reads_back_as_absent)
{
    EXPECT_EQ(tty_setenv(LINE, "HOME", "x"), 0);
    EXPECT_EQ(tty_setenv(LINE, "HOME", ""), 0);
    EXPECT_EQ(get(LINE, "HOME"), "(null)");
    EXPECT_EQ(support::slurp(info(LINE)), "HOME=\r\n");
}

TEST_F(Env, the_text_null_reads_back_unless_it_is_cut_to_that_length)
{
    EXPECT_EQ(tty_setenv(LINE, "HOME", "null"), 0);
    EXPECT_EQ(get(LINE, "HOME", 7), "null");
    EXPECT_EQ(get(LINE, "HOME", 5), "(null)");
}

TEST_F(Env, long_value_is_cut_to_the_buffer_and_terminated)
{
    EXPECT_EQ(tty_setenv(LINE, "HOME", "abcdefgh"), 0);
    EXPECT_EQ(get(LINE, "HOME", 4), "abc");
    EXPECT_EQ(buf[4], 0x5a);
}

TEST_F(Env, buffer_of_no_bytes_is_left_alone)
{
    EXPECT_EQ(tty_setenv(LINE, "HOME", "x"), 0);
    EXPECT_EQ(get(LINE, "HOME", 0), "(null)");
    EXPECT_EQ(get(LINE, "HOME", -1), "(null)");
    EXPECT_TRUE(untouched());
}

TEST_F(Env, key_that_begins_another_is_kept_apart)
{
    EXPECT_EQ(tty_setenv(LINE, "VKD_SWITCH", "long"), 0);
    EXPECT_EQ(get(LINE, "VKD"), "(null)");
    EXPECT_EQ(tty_setenv(LINE, "VKD", "short"), 0);
    EXPECT_EQ(get(LINE, "VKD_SWITCH"), "long");
    EXPECT_EQ(get(LINE, "VKD"), "short");
}

TEST_F(Env, line0_of_another_instance_is_not_read_back)
{
    std::filesystem::create_directories(path("/3/mng/tty"));
    std::filesystem::create_directories(path("/0/mng/tty"));
    setenv("TMPDIR", path("/3").c_str(), 1);
    EXPECT_EQ(tty_setenv(0, "HOME", "x"), 0);
    EXPECT_EQ(get(0, "HOME"), "(null)");
    setenv("TMPDIR", path("/0").c_str(), 1);
    EXPECT_EQ(tty_setenv(0, "HOME", "zero"), 0);
    setenv("TMPDIR", path("/3").c_str(), 1);
    EXPECT_EQ(get(0, "HOME"), "zero");
}

TEST_F(Env, operations_may_be_called_while_the_lock_is_held)
{
    tty_lib_lock();
    EXPECT_EQ(tty_setenv(LINE, "HOME", "x"), 0);
    EXPECT_EQ(get(LINE, "HOME"), "x");
    tty_lib_unlock();
}

TEST_F(Env, child_may_set_and_get_though_a_thread_of_the_parent_holds_the_lock)
{
    std::atomic<bool> holds{false};
    std::atomic<bool> end{false};
    EXPECT_EQ(tty_setenv(LINE, "HOME", "parent"), 0);
    std::thread holder([&] {
        tty_lib_lock();
        holds = true;
        support::wait_until(
            [&] {
                return end.load();
            },
            20000);
        tty_lib_unlock();
    });
    ASSERT_TRUE(support::wait_until([&] {
        return holds.load();
    }));
    const int status = support::in_child([&] {
        return get(LINE, "HOME") == "parent" &&
               tty_setenv(LINE, "HOME", "child") == 0 &&
               get(LINE, "HOME") == "child";
    });
    EXPECT_EQ(status, 0);
    end = true;
    holder.join();
    EXPECT_EQ(get(LINE, "HOME"), "child");
}

TEST_F(Env,
       child_may_set_though_a_thread_of_the_parent_is_in_the_middle_of_a_set)
{
    static int status;
    EXPECT_EQ(tty_setenv(LINE, "HOME", "x"), 0);
    // The record lock is the parent's: the child takes another line.
    fault::run("rename", 1, [] {
        status = support::in_child([] {
            return tty_setenv(LINE + 1, "HOME", "child") == 0;
        });
    });
    status = -1;
    EXPECT_EQ(tty_setenv(LINE, "HOME", "y"), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(get(LINE, "HOME"), "y");
    EXPECT_EQ(get(LINE + 1, "HOME"), "child");
}

// Whole vocabularies and crowds write much: their files lie in memory.
class EnvInMemory : public support::private_root_test
{
  protected:
    void SetUp() override
    {
        private_root_test::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        make_directories("/mng/tty");
    }

    const std::string info = "/mng/tty/.tty_info_300";
};

static std::atomic<bool> g_came_back;

static void *get_until_cancelled(void *)
{
    char buf[64];

    tty_getenv(5, "HOME", buf, sizeof buf);
    g_came_back = true;
    pthread_testcancel();
    return nullptr;
}

// Waiting for the file's lock is where a thread can be asked to end: it would
// take the library's lock with it.
static bool cancelled_thread_leaves_the_lock_free(const std::string &file)
{
    lock_holder holder(file);
    pthread_t thread;
    void *result = nullptr;
    const int waits = fault::watch("fcntl", fault::only_what(F_SETLKW));

    pthread_create(&thread, nullptr, get_until_cancelled, nullptr);
    support::wait_until([&] {
        return fault::seen(waits) > 0;
    });
    pthread_cancel(thread);
    holder.let_go();
    pthread_join(thread, &result);
    char buf[64];
    tty_getenv(5, "HOME", buf, sizeof buf);
    return g_came_back && result == PTHREAD_CANCELED;
}

TEST_F(Env, thread_that_is_cancelled_leaves_the_lock_free)
{
    const std::string file = info(5) + ".lock";
    EXPECT_EQ(support::in_child([&] {
                  return cancelled_thread_leaves_the_lock_free(file);
              }),
              0);
}

TEST_F(EnvInMemory, every_key_of_a_line_keeps_its_own_value)
{
    char buf[64];
    for (const char *name : tty_envs) {
        const std::string value = std::string("v") + name;
        ASSERT_EQ(tty_setenv(LINE, name, value.c_str()), 0);
    }
    for (const char *name : tty_envs) {
        ASSERT_EQ(tty_getenv(LINE, name, buf, sizeof buf), buf);
        EXPECT_EQ(buf, std::string("v") + name);
    }
    EXPECT_EQ(support::lines_of(info).size(), 94u);
}

constexpr int PROCESSES = 8;
constexpr int THREADS = 8;
constexpr int ROUNDS = 4;

// Sets one key to increasing values and reads each of them back.
static bool count_up(const char *name)
{
    char buf[64];
    for (int i = 1; i <= ROUNDS; i++) {
        const std::string value = std::to_string(i) + name;
        if (tty_setenv(LINE, name, value.c_str()) != 0 ||
            tty_getenv(LINE, name, buf, sizeof buf) == nullptr ||
            value != buf) {
            return false;
        }
    }
    return true;
}

static bool count_up_in_threads(int process)
{
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; i++) {
        const char *name = tty_envs[process * THREADS + i];
        threads.emplace_back([&good, name] {
            good += count_up(name) ? 1 : 0;
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    return good == THREADS;
}

TEST_F(EnvInMemory, nothing_is_lost_between_many_processes_and_threads)
{
    pid_t pids[PROCESSES];
    for (int i = 0; i < PROCESSES; i++) {
        pids[i] = fork();
        if (pids[i] == 0) {
            _exit(count_up_in_threads(i) ? 0 : 1);
        }
    }
    for (const pid_t pid : pids) {
        EXPECT_EQ(support::wait_child(pid, 25000), 0);
    }
    std::map<std::string, int> count;
    for (const std::string &line : support::lines_of(info)) {
        count[line]++;
    }
    EXPECT_EQ(count.size(), static_cast<size_t>(PROCESSES * THREADS));
    for (int i = 0; i < PROCESSES * THREADS; i++) {
        const std::string name = tty_envs[i];
        EXPECT_EQ(count[name + "=" + std::to_string(ROUNDS) + name + "\r\n"], 1)
            << name;
    }
    EXPECT_EQ(tty_log(), messages());
}
