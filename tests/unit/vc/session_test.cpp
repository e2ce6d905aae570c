#include "vc/session.h"

#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/fault.h"

class SessionTableTest : public ::testing::Test
{
  protected:
    void TearDown() override
    {
        for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
             ttyno = vc_child_after(ttyno)) {
            vc_child_release(vc_child_at(ttyno));
        }
    }

    static void install(int ttyno)
    {
        auto *child = static_cast<vc_child *>(calloc(1, sizeof(vc_child)));
        child->ttyno = ttyno;
        vc_child_install(ttyno, child);
    }

    static std::vector<int> lines()
    {
        std::vector<int> found;
        for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
             ttyno = vc_child_after(ttyno)) {
            found.push_back(ttyno);
        }
        return found;
    }
};

TEST_F(SessionTableTest, a_walk_over_no_session_finds_none)
{
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(vc_child_next(TTY_LINES - 1), TTY_LINES);
    EXPECT_EQ(vc_child_next(TTY_LINES), TTY_LINES);
}

TEST_F(SessionTableTest, a_walk_finds_all_sessions_in_the_order_of_lines)
{
    const std::vector<int> filled = {0,  1,   31,  32,   63,
                                     64, 127, 300, 1023, TTY_LINES - 1};
    for (size_t i = filled.size(); i-- > 0;) {
        install(filled[i]);
    }
    EXPECT_EQ(lines(), filled);
}

TEST_F(SessionTableTest, a_walk_finds_every_line_when_all_are_taken)
{
    for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
        install(ttyno);
    }
    const std::vector<int> found = lines();
    ASSERT_EQ(found.size(), size_t{TTY_LINES});
    for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
        EXPECT_EQ(found[size_t(ttyno)], ttyno);
    }
}

TEST_F(SessionTableTest, a_session_that_ends_on_the_way_is_not_met)
{
    for (const int ttyno : {258, 300, 301, 400}) {
        install(ttyno);
    }
    std::vector<int> met;
    for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
         ttyno = vc_child_after(ttyno)) {
        met.push_back(ttyno);
        if (ttyno == 258) {
            vc_child_release(vc_child_at(300));
        }
        vc_child_release(vc_child_at(ttyno));
    }
    EXPECT_EQ(met, (std::vector<int>{258, 301, 400}));
    EXPECT_TRUE(lines().empty());
}

TEST_F(SessionTableTest, an_emptied_table_has_no_lines)
{
    vc_child session = {};
    vc_child_install(300, &session);
    vc_child_clear_all();
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_TRUE(lines().empty());
}

// A loop with a real-time priority on the only processor would keep the handler
// from ever ending by asking alone.
TEST_F(SessionTableTest, a_release_sleeps_while_a_handler_is_at_work)
{
    const int sleeps = fault::watch("usleep");
    vc_child_table_enter();
    std::thread handler([&] {
        for (int i = 0; i < 5000 && fault::seen(sleeps) < 3; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        vc_child_table_leave();
    });
    install(300);
    vc_child_release(vc_child_at(300));
    handler.join();
    EXPECT_GE(fault::seen(sleeps), 3);
}

// Runs handlers on another thread while sessions come and go on this one: a
// record must not be freed under a handler that has found it. Each release
// waits for a moment without one, which a busy machine may leave it long
// without.
TEST_F(SessionTableTest, handlers_on_other_threads_never_meet_a_freed_record)
{
    std::atomic<bool> stop{false};
    std::thread handler([&] {
        while (!stop) {
            vc_child_table_enter();
            vc_child *child = vc_child_of_pid(4242);
            if (child != nullptr) {
                vc_child_set_exited(child);
            }
            vc_child_table_leave();
        }
    });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (int i = 0; i < 2000 && std::chrono::steady_clock::now() < end; i++) {
        auto *child = static_cast<vc_child *>(calloc(1, sizeof(vc_child)));
        child->ttyno = 300;
        vc_child_install(300, child);
        vc_child_set_pid(child, 4242);
        vc_child_release(child);
    }
    stop = true;
    handler.join();
}
