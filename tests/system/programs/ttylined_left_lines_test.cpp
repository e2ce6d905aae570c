// What becomes of the lines of a login daemon that was killed.
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/line_peers.h"
#include "tests/support/wait.h"
#include "tests/system/programs/ttylined_run.h"

class TtylinedLeft : public Ttylined
{
  protected:
    std::string info(int line) const
    {
        return run.directory + "/mng/tty/.tty_info_" + std::to_string(line);
    }

    void store(int line, const std::string &session) const
    {
        std::ofstream file(info(line), std::ios::binary);

        file << "LOGNAME=alice\r\nPRILEVEL=15\r\nSPEED=9600\r\nSESSIONID="
             << session << "\r\n";
    }

    std::string content(int line) const
    {
        std::ifstream file(info(line), std::ios::binary);

        return {std::istreambuf_iterator<char>(file), {}};
    }

    bool is_clean(int line) const
    {
        return contains(content(line), "SESSIONID=0\r\n");
    }

    // Sessions on as many lines, from 258 on; on each the store says so.
    static void begin_sessions(const unique_fd &fd, int count)
    {
        for (int i = 0; i < count; i++) {
            tty_cmsg ok = accept_report(6, 7 + i, i + 1);
            ok.ttyno = take_line(fd, 6, 7 + i, i + 1);
            ok.pid = 4711 + i;
            ASSERT_EQ(ok.ttyno, 258 + i);
            ASSERT_TRUE(send_record(fd, with_flag(ok, 0x020)));
        }
        ASSERT_TRUE(settled(fd));
    }

    static bool comes(const std::function<bool()> &holds)
    {
        return support::wait_until(holds, PATIENCE_MS);
    }
};

TEST_F(TtylinedLeft, what_killed_sessions_said_is_taken_off_their_lines)
{
    start();
    unique_fd fd = client();
    begin_sessions(fd, 2);
    store(258, "0123456789abcdef");
    store(259, "0123456789abcde0");
    store(260, "0123456789abcde1");
    fd.reset();
    EXPECT_TRUE(comes([&] {
        return is_clean(258) && is_clean(259);
    }));
    EXPECT_FALSE(contains(content(258), "alice")) << content(258);
    EXPECT_FALSE(contains(content(258), "PRILEVEL")) << content(258);
    EXPECT_TRUE(contains(content(258), "SPEED=9600")) << content(258);
    EXPECT_FALSE(is_clean(260)) << "it was not this daemon's line";
}

// Without an id the next session could not be told from the one that went.
TEST_F(TtylinedLeft, what_has_no_session_stays_as_it_is)
{
    start();
    unique_fd fd = client();
    begin_sessions(fd, 3);
    store(258, "");
    store(259, "0");
    store(260, "0123456789abcdef");
    const std::string before = content(258);
    fd.reset();
    // They are cleaned in their order.
    EXPECT_TRUE(comes([&] {
        return is_clean(260);
    }));
    EXPECT_EQ(content(258), before);
    EXPECT_TRUE(contains(content(259), "alice"));
}

TEST_F(TtylinedLeft, a_line_that_was_cleaned_by_its_session_stays_as_it_is)
{
    start();
    unique_fd fd = client();
    begin_sessions(fd, 2);
    ASSERT_TRUE(send_record(fd, line_clean(258, 4711)));
    ASSERT_TRUE(settled(fd));
    // Somebody else's by now.
    store(258, "fedcba9876543210");
    store(259, "0123456789abcdef");
    fd.reset();
    EXPECT_TRUE(comes([&] {
        return is_clean(259);
    }));
    EXPECT_TRUE(contains(content(258), "alice"));
}

TEST_F(TtylinedLeft, a_line_that_is_locked_delays_nobody)
{
    start();
    // Before there are connections, of which its process would keep copies.
    const holder lock(info(258) + ".lock");
    unique_fd fd = client();
    const unique_fd other = client();
    begin_sessions(fd, 1);
    store(258, "0123456789abcdef");
    fd.reset();
    // Its line is free at once, and given to the next.
    EXPECT_EQ(take_line(other, 6, 90, 9), 258);
    EXPECT_TRUE(settled(other));
    EXPECT_FALSE(is_clean(258));
}
