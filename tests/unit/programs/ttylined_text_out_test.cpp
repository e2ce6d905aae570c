#include "programs/ttylined/text_out.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

// A pipe whose reader may be slow.
class TextOut : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        out.fd = ends[1];
    }

    void TearDown() override
    {
        close(ends[0]);
        close(ends[1]);
    }

    std::string read_all()
    {
        std::string all;
        char bytes[4096];

        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        for (ssize_t got; (got = read(ends[0], bytes, sizeof bytes)) > 0;) {
            all.append(bytes, static_cast<std::size_t>(got));
        }
        return all;
    }

    int ends[2] = {-1, -1};
    text_out out;
};

TEST_F(TextOut, writes_at_once_what_can_be_written)
{
    text_out_add(out, "one\n");
    text_out_add(out, "two\n");
    EXPECT_EQ(out.pending, "");
    EXPECT_EQ(read_all(), "one\ntwo\n");
}

TEST_F(TextOut, keeps_what_is_not_read_without_waiting_and_loses_nothing)
{
    const std::string much(200000, 'x');
    text_out_add(out, much);
    EXPECT_GT(out.pending.size(), 0U);
    text_out_add(out, "end");
    std::string all = read_all();
    while (!out.pending.empty()) {
        text_out_flush(out);
        all += read_all();
    }
    EXPECT_EQ(all, much + "end");
}

TEST_F(TextOut, throws_away_what_nobody_can_ever_read)
{
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    out.fd = full;
    text_out_add(out, "lost");
    EXPECT_EQ(out.pending, "");
    close(full);
    out.fd = -1;
    text_out_add(out, "lost");
    EXPECT_EQ(out.pending, "");
}

TEST_F(TextOut, leaves_the_mode_of_a_shared_descriptor)
{
    text_out_add(out, std::string(200000, 'x'));
    EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
}
