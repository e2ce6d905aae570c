#include "programs/ttylined/record.h"

#include <cstring>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "tests/support/login_records.h"

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
