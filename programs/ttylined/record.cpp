// Records as text. The kinds are a table: bit, name and meaningful fields for
// each direction, in the order in which bits are looked at.
#include "programs/ttylined/record.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "programs/shared/escape.h"

enum field : unsigned {
    F_TTYNO = 1u << 0,
    F_FAMILY = 1u << 1,
    F_PORT = 1u << 2,
    F_PROTOCOL = 1u << 3,
    F_PID = 1u << 4,
    F_PEER = 1u << 5,
    F_LOCAL = 1u << 6,
    F_PATH = 1u << 7,
    F_ACCEPT = 1u << 8,
    F_TOS = 1u << 9,
    F_TIPC = 1u << 10,
    F_NEW_PORT = 1u << 11,
};

constexpr unsigned LISTEN_PORT_FIELDS =
    F_FAMILY | F_PORT | F_PROTOCOL | F_PID | F_TOS | F_TIPC;
constexpr unsigned LISTEN_PATH_FIELDS =
    F_FAMILY | F_PROTOCOL | F_PID | F_TOS | F_PATH;
constexpr unsigned REPORT_FIELDS =
    F_FAMILY | F_PROTOCOL | F_PID | F_PEER | F_LOCAL | F_PATH | F_ACCEPT;
constexpr unsigned ANSWER_FIELDS =
    F_TTYNO | F_FAMILY | F_PORT | F_PATH | F_ACCEPT;

struct kind_row {
    uint32_t bit;
    record_kind kind;
    const char *from_name; // null: means nothing in this direction
    unsigned from_fields;
    const char *to_name;
    unsigned to_fields;
};

constexpr kind_row kinds[] = {
    {VC_FLAG_CLIENT_ALLOC, record_kind::alloc, "accept report", REPORT_FIELDS,
     "line assignment", ANSWER_FIELDS},
    {VC_FLAG_CLIENT_CLEAR, record_kind::clear, "line clean",
     F_TTYNO | F_PORT | F_PROTOCOL | F_PID, "client clear", F_TTYNO},
    {VC_FLAG_PORT_PERMIT, record_kind::port_permit, "listen request",
     LISTEN_PORT_FIELDS, "permit", LISTEN_PORT_FIELDS},
    {VC_FLAG_PATH_PERMIT, record_kind::path_permit, "listen request",
     LISTEN_PATH_FIELDS, "permit", LISTEN_PATH_FIELDS},
    {VC_FLAG_PORT_FAIL, record_kind::port_fail, "listen failed",
     LISTEN_PORT_FIELDS, "delete port", F_PORT | F_PROTOCOL | F_PID},
    {VC_FLAG_PATH_FAIL, record_kind::path_fail, "listen failed",
     LISTEN_PATH_FIELDS, "delete path", F_PATH | F_PROTOCOL | F_PID},
    {VC_FLAG_ALLOC_OK, record_kind::alloc_ok, "alloc ok", ANSWER_FIELDS | F_PID,
     nullptr, 0},
    {VC_FLAG_STOP_LISTEN, record_kind::stop_listen, nullptr, 0, "stop listen",
     F_PROTOCOL | F_PID},
    {VC_FLAG_PORT_CHANGE, record_kind::port_change, "port change",
     F_FAMILY | F_PORT | F_NEW_PORT | F_PROTOCOL | F_PID, nullptr, 0},
};

static const char *name_of(const kind_row &row, record_way way)
{
    return way == record_way::from_client ? row.from_name : row.to_name;
}

static const kind_row *find_kind(const tty_cmsg &record, record_way way)
{
    for (const kind_row &row : kinds) {
        if ((record.vc_flag & row.bit) != 0 && name_of(row, way) != nullptr) {
            return &row;
        }
    }
    return nullptr;
}

record_kind record_kind_of(const tty_cmsg &record, record_way way)
{
    const kind_row *row = find_kind(record, way);

    return row == nullptr ? record_kind::unknown : row->kind;
}

static std::string hex_text(uint32_t value)
{
    char text[16];

    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

std::string escaped_text(const char *bytes, std::size_t limit)
{
    return escaped(std::string(bytes, strnlen(bytes, limit)), "\"\\");
}

static std::string address_text(int family, const uint8_t *address, int port)
{
    char text[INET6_ADDRSTRLEN] = "";

    if ((family != AF_INET && family != AF_INET6) ||
        inet_ntop(family, address, text, sizeof text) == nullptr) {
        return "";
    }
    const std::string host = text;
    return (family == AF_INET6 ? "[" + host + "]" : host) + ":" +
           std::to_string(port);
}

std::string record_peer_text(const tty_cmsg &record)
{
    return address_text(record.socktype, record.peer_addr, record.peer_port);
}

static void add_number(std::string &text, const char *name, long long value)
{
    text += std::string(" ") + name + "=" + std::to_string(value);
}

static void add_addresses(std::string &text, const tty_cmsg &record,
                          unsigned fields)
{
    const bool has_address =
        record.socktype == AF_INET || record.socktype == AF_INET6;

    if ((fields & F_PEER) != 0 && has_address) {
        text += " peer=" + record_peer_text(record);
    }
    if ((fields & F_LOCAL) != 0) {
        if (has_address) {
            text += " local=" + address_text(record.socktype, record.local_addr,
                                             record.port);
        } else {
            add_number(text, "port", record.port);
        }
    }
}

static void add_numbers(std::string &text, const tty_cmsg &record,
                        unsigned fields)
{
    const struct {
        unsigned bit;
        const char *name;
        int32_t value;
    } numbers[] = {
        {F_TTYNO, "ttyno", record.ttyno},
        {F_FAMILY, "family", record.socktype},
        {F_PORT, "port", record.port},
        {F_NEW_PORT, "new_port", record.peer_port},
        {F_PROTOCOL, "protocol", record.protocol},
        {F_PID, "pid", record.pid},
        {F_TOS, "tos", record.tos},
        {F_ACCEPT, "sockfd", record.sockfd},
        {F_ACCEPT, "accept_id", record.accept_id},
    };

    for (const auto &number : numbers) {
        if ((fields & number.bit) != 0) {
            add_number(text, number.name, number.value);
        }
    }
}

static void add_tipc(std::string &text, const tty_cmsg &record)
{
    add_number(text, "addrtype", record.tipc_addrtype);
    add_number(text, "scope", record.tipc_scope);
    add_number(text, "type", record.tipc_type);
    add_number(text, "lower", record.tipc_lower);
    add_number(text, "upper", record.tipc_upper);
}

std::string record_text(const tty_cmsg &record, record_way way)
{
    const kind_row *row = find_kind(record, way);
    if (row == nullptr) {
        return "unknown flag " + hex_text(record.vc_flag);
    }

    const unsigned fields =
        way == record_way::from_client ? row->from_fields : row->to_fields;
    std::string text = name_of(*row, way);
    if (record.vc_flag != row->bit) {
        text += " flag=" + hex_text(record.vc_flag);
    }
    add_numbers(text, record, fields);
    add_addresses(text, record, fields);
    if ((fields & F_TIPC) != 0 && record.socktype == AF_TIPC) {
        add_tipc(text, record);
    }
    if ((fields & F_PATH) != 0 && record.path[0] != '\0') {
        text += " path=\"" + escaped_text(record.path, VC_PATH_SIZE) + "\"";
    }
    return text;
}
