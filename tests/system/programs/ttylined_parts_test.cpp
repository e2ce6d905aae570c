/*
 * The pool, the record texts and the requests alone, without a process.
 */
#include <cstring>

#include <gtest/gtest.h>

#include "programs/ttylined/pool.h"
#include "programs/ttylined/record.h"
#include "programs/ttylined/request.h"
#include "tests/system/programs/ttylined_run.h"

static bool refuses(const char *text)
{
    line_pool pool;
    std::string error;

    pool_init(pool);
    return !pool_set_ranges(pool, text, error) && !error.empty();
}

TEST(TtylinedPool, refuses_ranges_that_cannot_carry_sessions)
{
    EXPECT_TRUE(refuses("6=257-300"));
    EXPECT_TRUE(refuses("6=1148-1149"));
    EXPECT_TRUE(refuses("6=1100-1500"));
    EXPECT_TRUE(refuses("6=1420-1430"));
    EXPECT_TRUE(refuses("6=1500-1586"));
    EXPECT_TRUE(refuses("6=300-299"));
}

TEST(TtylinedPool, refuses_text_that_is_no_pool)
{
    for (const char *text :
         {"", "6", "6=", "=258-300", "12=258-300", "-1=258-300", "6=258",
          "6=258-", "6=-300", "6=258-300,", "6=258-300,,301-302", "6=a-b",
          "6=258-300x", "6= 258-300", "6=258-99999999999"}) {
        EXPECT_TRUE(refuses(text)) << text;
    }
}

TEST(TtylinedPool, a_failed_range_changes_nothing)
{
    line_pool pool;
    std::string error;

    pool_init(pool);
    EXPECT_FALSE(pool_set_ranges(pool, "6=300-301,5-6", error));
    EXPECT_EQ(pool_take(pool, 1, accept_report(6, 7, 1)), 258);
}

TEST(TtylinedPool, accepts_the_outermost_lines)
{
    line_pool pool;
    std::string error;

    pool_init(pool);
    EXPECT_TRUE(pool_set_ranges(pool, "0=1585-1585,258-258", error)) << error;
    EXPECT_TRUE(pool_set_ranges(pool, "11=1148-1148,1421-1421", error));
    EXPECT_EQ(pool_take(pool, 1, accept_report(0, 7, 1)), 258);
    EXPECT_EQ(pool_take(pool, 1, accept_report(0, 7, 2)), 1585);
    EXPECT_EQ(pool_take(pool, 1, accept_report(0, 7, 3)), -1);
    EXPECT_EQ(pool_take(pool, 1, accept_report(11, 7, 4)), 1148);
    EXPECT_EQ(pool_take(pool, 1, accept_report(11, 7, 5)), 1421);
}

TEST(TtylinedPool, a_protocol_out_of_range_uses_every_line)
{
    line_pool pool;

    pool_init(pool);
    EXPECT_EQ(pool_take(pool, 1, accept_report(-3, 7, 1)), 258);
    EXPECT_EQ(pool_take(pool, 1, accept_report(99, 7, 2)), 259);
}

TEST(TtylinedPool, confirms_only_the_assignment_that_was_made)
{
    line_pool pool;
    tty_cmsg answer = accept_report(6, 7, 1);

    pool_init(pool);
    answer.ttyno = pool_take(pool, 1, answer);
    EXPECT_FALSE(pool_confirm(pool, 2, answer));
    tty_cmsg other = answer;
    other.accept_id = 2;
    EXPECT_FALSE(pool_confirm(pool, 1, other));
    for (int ttyno : {-1, 0, 259, 1585, 1586, 2147483647, -2147483647 - 1}) {
        other = answer;
        other.ttyno = ttyno;
        EXPECT_FALSE(pool_confirm(pool, 1, other)) << ttyno;
    }
    answer.pid = 4711;
    EXPECT_TRUE(pool_confirm(pool, 1, answer));
    EXPECT_EQ(pool_find(pool, 258)->session_pid, 4711);
    EXPECT_FALSE(pool_confirm(pool, 1, answer));
}

TEST(TtylinedPool, a_line_out_of_range_is_nobodys)
{
    line_pool pool;

    pool_init(pool);
    for (int ttyno : {-1, 1586, 2147483647, -2147483647 - 1}) {
        EXPECT_EQ(pool_find(pool, ttyno), nullptr);
        EXPECT_EQ(pool_clean(pool, 1, line_clean(ttyno, 0)),
                  clean_result::not_owner);
    }
}

TEST(TtylinedPool, drop_keeps_only_confirmed_sessions_when_asked)
{
    line_pool pool;
    tty_cmsg first = accept_report(6, 7, 1);

    pool_init(pool);
    first.ttyno = pool_take(pool, 1, first);
    pool_take(pool, 1, accept_report(6, 8, 2));
    pool_take(pool, 2, accept_report(6, 7, 1));
    ASSERT_TRUE(pool_confirm(pool, 1, first));
    EXPECT_EQ(pool_drop_client(pool, 1, true), 1U);
    EXPECT_EQ(pool_find(pool, 259)->state, line_state::unused);
    EXPECT_EQ(pool_hand_over(pool, 1, 3), 1U);
    EXPECT_EQ(pool_clean(pool, 1, line_clean(258, 1)), clean_result::not_owner);
    EXPECT_EQ(pool_clean(pool, 3, line_clean(258, 1)), clean_result::freed);
    EXPECT_EQ(pool_find(pool, 260)->client, 2U);
}

TEST(TtylinedPool, one_line_alone_is_taken_only_when_it_may_be_had)
{
    line_pool pool;
    std::string error;
    const tty_cmsg report = accept_report(6, 7, 1);

    pool_init(pool);
    ASSERT_TRUE(pool_set_ranges(pool, "6=300-301,400-400", error));
    for (int ttyno : {-1, 0, 257, 258, 299, 302, 399, 401, 1586, 2147483647}) {
        EXPECT_FALSE(pool_take_only(pool, 1, report, ttyno)) << ttyno;
    }
    EXPECT_TRUE(pool_take_only(pool, 1, report, 400));
    EXPECT_FALSE(pool_take_only(pool, 1, report, 400));
    EXPECT_EQ(pool_find(pool, 400)->assignment.ttyno, 400);
    EXPECT_EQ(pool_find(pool, 400)->state, line_state::assigned);
    EXPECT_FALSE(pool_take_only(pool, 1, accept_report(-1, 7, 2), 257));
    EXPECT_TRUE(pool_take_only(pool, 1, accept_report(-1, 7, 2), 258));
}

static bool nothing_known(const line_pool &pool, int ttyno)
{
    const line_facts &facts = pool_find(pool, ttyno)->facts;

    return !facts.logged_in && !facts.speed && !facts.session_timeout &&
           !facts.exec_timeout;
}

TEST(TtylinedPool, facts_belong_to_one_use_of_a_line)
{
    line_pool pool;

    pool_init(pool);
    for (int ttyno : {-1, 1586}) {
        EXPECT_EQ(pool_facts(pool, ttyno), nullptr);
    }
    *pool_facts(pool, 258) = {true, 1U, 2U, 3U};
    EXPECT_FALSE(nothing_known(pool, 258));
    EXPECT_EQ(pool_take(pool, 1, accept_report(6, 7, 1)), 258);
    EXPECT_TRUE(nothing_known(pool, 258));
    *pool_facts(pool, 258) = {true, {}, {}, {}};
    EXPECT_EQ(pool_clean(pool, 2, line_clean(258, 0)), clean_result::not_owner);
    EXPECT_FALSE(nothing_known(pool, 258));
    EXPECT_EQ(pool_clean(pool, 1, line_clean(258, 0)), clean_result::freed);
    EXPECT_TRUE(nothing_known(pool, 258));

    ASSERT_TRUE(pool_take_only(pool, 1, accept_report(6, 7, 2), 258));
    *pool_facts(pool, 258) = {false, {}, {}, 3U};
    pool_drop_client(pool, 1, false);
    EXPECT_TRUE(nothing_known(pool, 258));
}

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
        const char *why; /* empty: valid */
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

static std::string from_text(const tty_cmsg &record)
{
    return record_text(record, record_way::from_client);
}

static std::string to_text(const tty_cmsg &record)
{
    return record_text(record, record_way::to_client);
}

TEST(TtylinedRecord, names_every_kind_in_both_directions)
{
    const struct {
        uint32_t flag;
        const char *from;
        const char *to;
    } rows[] = {
        {0x001, "accept report", "line assignment"},
        {0x002, "line clean", "client clear"},
        {0x008, "listen request", "permit"},
        {0x080, "listen request", "permit"},
        {0x010, "listen failed", "delete port"},
        {0x100, "listen failed", "delete path"},
        {0x020, "alloc ok", "unknown flag 0x20"},
        {0x200, "unknown flag 0x200", "stop listen"},
        {0x400, "port change", "unknown flag 0x400"},
        {0x004, "unknown flag 0x4", "unknown flag 0x4"},
        {0x000, "unknown flag 0x0", "unknown flag 0x0"},
        {0xfffff800, "unknown flag 0xfffff800", "unknown flag 0xfffff800"},
    };

    for (const auto &row : rows) {
        tty_cmsg record = {};
        record.vc_flag = row.flag;
        EXPECT_EQ(from_text(record).rfind(row.from, 0), 0U) << row.flag;
        EXPECT_EQ(to_text(record).rfind(row.to, 0), 0U) << row.flag;
    }
}

TEST(TtylinedRecord, the_first_bit_decides)
{
    tty_cmsg record = {};

    record.vc_flag = 0x003;
    EXPECT_EQ(record_kind_of(record, record_way::from_client),
              record_kind::alloc);
    record.vc_flag = 0x088;
    EXPECT_EQ(record_kind_of(record, record_way::from_client),
              record_kind::port_permit);
    record.vc_flag = 0x220;
    EXPECT_EQ(record_kind_of(record, record_way::from_client),
              record_kind::alloc_ok);
    record.vc_flag = 0x408;
    EXPECT_EQ(to_text(record).rfind("permit flag=0x408", 0), 0U);
}

TEST(TtylinedRecord, shows_the_fields_of_an_accept_report)
{
    EXPECT_EQ(from_text(accept_report(6, 7, 3)),
              "accept report family=2 protocol=6 pid=" +
                  std::to_string(accept_report(6, 7, 3).pid) +
                  " sockfd=7 accept_id=3 peer=192.0.2.7:40000"
                  " local=127.0.0.1:23");

    tty_cmsg record = accept_report(6, 7, 3);
    record.socktype = AF_INET6;
    std::memset(record.peer_addr, 0, sizeof record.peer_addr);
    std::memset(record.local_addr, 0, sizeof record.local_addr);
    record.peer_addr[15] = 1;
    EXPECT_NE(from_text(record).find("peer=[::1]:40000 local=[::]:23"),
              std::string::npos);
}

TEST(TtylinedRecord, shows_tipc_fields_only_for_tipc)
{
    tty_cmsg record = listen_request(0, 3);

    EXPECT_EQ(from_text(record).find("addrtype"), std::string::npos);
    record.socktype = AF_TIPC;
    record.tipc_scope = -1;
    record.tipc_upper = 4000000000;
    EXPECT_NE(from_text(record).find("addrtype=0 scope=-1 type=0 lower=0 "
                                     "upper=4000000000"),
              std::string::npos);
}

TEST(TtylinedRecord, a_path_without_a_terminator_ends_with_its_field)
{
    const tty_cmsg record = path_request(std::string(64, 'p'), 7);
    const std::string text = to_text(record);

    EXPECT_NE(text.find(" path=\"" + std::string(64, 'p') + "\""),
              std::string::npos);
}

TEST(TtylinedRecord, escapes_what_does_not_print)
{
    EXPECT_EQ(escaped_text("a\n\"\\\x7f\xff~ ", 64),
              "a\\x0a\\x22\\x5c\\x7f\\xff~ ");
}
