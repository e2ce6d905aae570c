#include "programs/ttylined/request.h"

#include <cstring>

#include <gtest/gtest.h>

static std::string item(uint16_t type, uint32_t value, uint16_t length = 4)
{
    char bytes[8];

    std::memcpy(bytes, &type, sizeof type);
    std::memcpy(bytes + 2, &length, sizeof length);
    std::memcpy(bytes + 4, &value, sizeof value);
    return {bytes, sizeof bytes};
}

TEST(TtylinedRequest, a_request_is_taken_off_once_it_is_whole)
{
    const std::string hold = item(0x20, 300) + item(0x800, 60);
    line_request request = {};
    std::string why;

    for (std::size_t length = 0; length < hold.size(); length++) {
        std::string bytes = hold.substr(0, length);
        EXPECT_EQ(request_next(bytes, request, why), request_result::none);
        EXPECT_EQ(bytes.size(), length);
    }
    std::string bytes = hold + item(0x1000, 0) + "x";
    ASSERT_EQ(request_next(bytes, request, why), request_result::request);
    EXPECT_EQ(request_text(request), "hold except=300 time=60");
    ASSERT_EQ(request_next(bytes, request, why), request_result::request);
    EXPECT_EQ(request_text(request), "release");
    EXPECT_EQ(request_next(bytes, request, why), request_result::none);
    EXPECT_EQ(bytes, "x");
}

TEST(TtylinedRequest, what_is_broken_is_said)
{
    const struct {
        std::string bytes;
        const char *why;
    } rows[] = {
        {item(0x20, 5, 5), "item 0x0020 of length 5"},
        {item(0x1000, 0, 0), "item 0x1000 of length 0"},
        {item(0x20, 5) + item(1, 1, 0xffff), "item 0x0001 of length 65535"},
        {item(0, 0), "unknown item 0x0000"},
        {item(0x400, 1), "unknown item 0x0400"},
        {item(0x21, 1), "unknown item 0x0021"},
        {item(0x20, 5) + item(0x2, 1), "unknown item 0x0002"},
        {item(0x20, 5) + item(0x20, 5), "item 0x0020 after a line number"},
        {item(0x20, 5) + item(0x1000, 0), "item 0x1000 after a line number"},
        {item(0x1, 1), "item 0x0001 without a line number"},
        {item(0x40, 1), "item 0x0040 without a line number"},
        {item(0x800, 1), "item 0x0800 without a line number"},
    };

    for (const auto &row : rows) {
        std::string bytes = row.bytes;
        std::string why;
        line_request request = {};
        EXPECT_EQ(request_next(bytes, request, why), request_result::broken);
        EXPECT_EQ(why, row.why);
    }
}

TEST(TtylinedRequest, only_numbers_that_mean_something_are_valid)
{
    const struct {
        line_request request;
        const char *why; // empty: valid
    } rows[] = {
        {{request_kind::login, 1585, 1}, ""},
        {{request_kind::login, 1586, 1}, "no such line"},
        {{request_kind::login, 5, 0}, "unknown value 0"},
        {{request_kind::speed, 0, 0xffffffff}, ""},
        {{request_kind::exec_timeout, 0xffffffff, 0}, "no such line"},
        {{request_kind::hold, 1586, 1800}, ""},
        {{request_kind::hold, 1587, 0}, "no such line"},
        {{request_kind::hold, 0, 1801}, "the time is too long"},
        {{request_kind::release, 0, 0}, ""},
        {{request_kind::release, 0, 7}, "unknown value 7"},
    };

    for (const auto &row : rows) {
        std::string why = "kept";
        EXPECT_EQ(request_valid(row.request, why), *row.why == '\0');
        EXPECT_EQ(why, row.why);
    }
}
