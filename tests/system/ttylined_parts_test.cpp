/*
 * The pool and the record texts alone, without a process.
 */
#include <cstring>

#include <gtest/gtest.h>

#include "ttylined_pool.h"
#include "ttylined_record.h"
#include "ttylined_run.h"

static bool refuses(const char *text)
{
    line_pool pool;
    std::string error;

    pool_init(pool);
    return !pool_set_ranges(pool, text, error) && !error.empty();
}

TEST(TtylinedPool, RefusesRangesThatCannotCarrySessions)
{
    EXPECT_TRUE(refuses("6=257-300"));
    EXPECT_TRUE(refuses("6=1148-1149"));
    EXPECT_TRUE(refuses("6=1100-1500"));
    EXPECT_TRUE(refuses("6=1420-1430"));
    EXPECT_TRUE(refuses("6=1500-1586"));
    EXPECT_TRUE(refuses("6=300-299"));
}

TEST(TtylinedPool, RefusesTextThatIsNoPool)
{
    for (const char *text :
         {"", "6", "6=", "=258-300", "12=258-300", "-1=258-300", "6=258",
          "6=258-", "6=-300", "6=258-300,", "6=258-300,,301-302", "6=a-b",
          "6=258-300x", "6= 258-300", "6=258-99999999999"}) {
        EXPECT_TRUE(refuses(text)) << text;
    }
}

TEST(TtylinedPool, AFailedRangeChangesNothing)
{
    line_pool pool;
    std::string error;

    pool_init(pool);
    EXPECT_FALSE(pool_set_ranges(pool, "6=300-301,5-6", error));
    EXPECT_EQ(pool_take(pool, 1, accept_report(6, 7, 1)), 258);
}

TEST(TtylinedPool, AcceptsTheOutermostLines)
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

TEST(TtylinedPool, AProtocolOutOfRangeUsesEveryLine)
{
    line_pool pool;

    pool_init(pool);
    EXPECT_EQ(pool_take(pool, 1, accept_report(-3, 7, 1)), 258);
    EXPECT_EQ(pool_take(pool, 1, accept_report(99, 7, 2)), 259);
}

TEST(TtylinedPool, ConfirmsOnlyTheAssignmentThatWasMade)
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

TEST(TtylinedPool, ALineOutOfRangeIsNobodys)
{
    line_pool pool;

    pool_init(pool);
    for (int ttyno : {-1, 1586, 2147483647, -2147483647 - 1}) {
        EXPECT_EQ(pool_find(pool, ttyno), nullptr);
        EXPECT_EQ(pool_clean(pool, 1, line_clean(ttyno, 0)),
                  clean_result::not_owner);
    }
}

TEST(TtylinedPool, DropKeepsOnlyConfirmedSessionsWhenAsked)
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

static std::string from_text(const tty_cmsg &record)
{
    return record_text(record, record_way::from_client);
}

static std::string to_text(const tty_cmsg &record)
{
    return record_text(record, record_way::to_client);
}

TEST(TtylinedRecord, NamesEveryKindInBothDirections)
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

TEST(TtylinedRecord, TheFirstBitDecides)
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

TEST(TtylinedRecord, ShowsTheFieldsOfAnAcceptReport)
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

TEST(TtylinedRecord, ShowsTipcFieldsOnlyForTipc)
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

TEST(TtylinedRecord, APathWithoutATerminatorEndsWithItsField)
{
    const tty_cmsg record = path_request(std::string(64, 'p'), 7);
    const std::string text = to_text(record);

    EXPECT_NE(text.find(" path=\"" + std::string(64, 'p') + "\""),
              std::string::npos);
}

TEST(TtylinedRecord, EscapesWhatDoesNotPrint)
{
    EXPECT_EQ(escaped_text("a\n\"\\\x7f\xff~ ", 64),
              "a\\x0a\\x22\\x5c\\x7f\\xff~ ");
}
