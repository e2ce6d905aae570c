/*
 * Records as text. The kinds are a table: bit, name and meaningful fields for
 * each direction, in the order in which bits are looked at.
 */
#include "programs/ttylined/record.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

enum field : unsigned {
    f_ttyno = 1u << 0,
    f_family = 1u << 1,
    f_port = 1u << 2,
    f_protocol = 1u << 3,
    f_pid = 1u << 4,
    f_peer = 1u << 5,
    f_local = 1u << 6,
    f_path = 1u << 7,
    f_accept = 1u << 8,
    f_tos = 1u << 9,
    f_tipc = 1u << 10,
    f_new_port = 1u << 11,
};

static constexpr unsigned listen_port_fields =
    f_family | f_port | f_protocol | f_pid | f_tos | f_tipc;
static constexpr unsigned listen_path_fields =
    f_family | f_protocol | f_pid | f_tos | f_path;
static constexpr unsigned report_fields =
    f_family | f_protocol | f_pid | f_peer | f_local | f_path | f_accept;
static constexpr unsigned answer_fields =
    f_ttyno | f_family | f_port | f_path | f_accept;

struct kind_row {
    uint32_t bit;
    record_kind kind;
    const char *from_name; /* null: means nothing in this direction */
    unsigned from_fields;
    const char *to_name;
    unsigned to_fields;
};

static constexpr kind_row kinds[] = {
    {VC_FLAG_CLIENT_ALLOC, record_kind::alloc, "accept report", report_fields,
     "line assignment", answer_fields},
    {VC_FLAG_CLIENT_CLEAR, record_kind::clear, "line clean",
     f_ttyno | f_port | f_protocol | f_pid, "client clear", f_ttyno},
    {VC_FLAG_PORT_PERMIT, record_kind::port_permit, "listen request",
     listen_port_fields, "permit", listen_port_fields},
    {VC_FLAG_PATH_PERMIT, record_kind::path_permit, "listen request",
     listen_path_fields, "permit", listen_path_fields},
    {VC_FLAG_PORT_FAIL, record_kind::port_fail, "listen failed",
     listen_port_fields, "delete port", f_port | f_protocol | f_pid},
    {VC_FLAG_PATH_FAIL, record_kind::path_fail, "listen failed",
     listen_path_fields, "delete path", f_path | f_protocol | f_pid},
    {VC_FLAG_ALLOC_OK, record_kind::alloc_ok, "alloc ok", answer_fields | f_pid,
     nullptr, 0},
    {VC_FLAG_STOP_LISTEN, record_kind::stop_listen, nullptr, 0, "stop listen",
     f_protocol | f_pid},
    {VC_FLAG_PORT_CHANGE, record_kind::port_change, "port change",
     f_family | f_port | f_new_port | f_protocol | f_pid, nullptr, 0},
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

static std::string escaped_byte(unsigned char byte)
{
    char text[8];

    std::snprintf(text, sizeof text, "\\x%02x", byte);
    return text;
}

std::string escaped_text(const char *bytes, std::size_t limit)
{
    const std::size_t length = strnlen(bytes, limit);
    std::string text;

    for (std::size_t i = 0; i < length; i++) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if (byte < ' ' || byte > '~' || byte == '"' || byte == '\\') {
            text += escaped_byte(byte);
        } else {
            text += bytes[i];
        }
    }
    return text;
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

    if ((fields & f_peer) != 0 && has_address) {
        text += " peer=" + record_peer_text(record);
    }
    if ((fields & f_local) != 0) {
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
        {f_ttyno, "ttyno", record.ttyno},
        {f_family, "family", record.socktype},
        {f_port, "port", record.port},
        {f_new_port, "new_port", record.peer_port},
        {f_protocol, "protocol", record.protocol},
        {f_pid, "pid", record.pid},
        {f_tos, "tos", record.tos},
        {f_accept, "sockfd", record.sockfd},
        {f_accept, "accept_id", record.accept_id},
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
    if ((fields & f_tipc) != 0 && record.socktype == AF_TIPC) {
        add_tipc(text, record);
    }
    if ((fields & f_path) != 0 && record.path[0] != '\0') {
        text += " path=\"" + escaped_text(record.path, VC_PATH_SIZE) + "\"";
    }
    return text;
}
