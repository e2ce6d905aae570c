#include "programs/ttylined/request.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include <ttyline/tty.h>

struct item {
    uint16_t type;
    uint16_t length;
    uint32_t value;
};
static_assert(sizeof(item) == 8, "an item as it is sent");
static_assert(offsetof(item, type) == 0, "type");
static_assert(offsetof(item, length) == 2, "length");
static_assert(offsetof(item, value) == 4, "value");

// The items that make a request, with the name of their number.
constexpr struct kind_row {
    uint16_t type;
    request_kind kind;
    const char *name;
    const char *number; // null: says nothing
} kinds[] = {
    {TTYLIB_TLV_LOGSUCC, request_kind::login, "login", nullptr},
    {TTYLIB_TLV_SPEED, request_kind::speed, "speed", "value"},
    {TTYLIB_TLV_SESSION_TIMEOUT, request_kind::session_timeout,
     "session timeout", "value"},
    {TTYLIB_TLV_EXEC_TIMEOUT, request_kind::exec_timeout, "exec timeout",
     "value"},
    {TTYLIB_TLV_HOLD_TIME, request_kind::hold, "hold", "time"},
    {TTYLIB_TLV_RELEASE, request_kind::release, "release", nullptr},
};

static const kind_row *find_kind(uint16_t type)
{
    for (const kind_row &row : kinds) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

static const kind_row &row_of(request_kind kind)
{
    const kind_row *found = kinds;

    while (found->kind != kind) {
        found++;
    }
    return *found;
}

static std::string item_name(const item &found)
{
    char text[32];

    std::snprintf(text, sizeof text, "item 0x%04x", found.type);
    return text;
}

static request_result item_at(const std::string &bytes, std::size_t at,
                              item &found, std::string &why)
{
    if (bytes.size() < at + sizeof found) {
        return request_result::none;
    }
    std::memcpy(&found, bytes.data() + at, sizeof found);
    if (found.type != TTYLIB_TLV_TTYNO && find_kind(found.type) == nullptr) {
        why = "unknown " + item_name(found);
        return request_result::broken;
    }
    if (found.length != sizeof found.value) {
        why = item_name(found) + " of length " + std::to_string(found.length);
        return request_result::broken;
    }
    return request_result::request;
}

request_result request_next(std::string &bytes, line_request &request,
                            std::string &why)
{
    item last = {};
    uint32_t ttyno = 0;
    std::size_t at = 0;

    request_result result = item_at(bytes, at, last, why);
    const bool has_line = last.type == TTYLIB_TLV_TTYNO;
    if (result == request_result::request && has_line) {
        ttyno = last.value;
        at += sizeof last;
        result = item_at(bytes, at, last, why);
    }
    if (result != request_result::request) {
        return result;
    }
    const kind_row *row = find_kind(last.type);
    if (row == nullptr || (last.type == TTYLIB_TLV_RELEASE) == has_line) {
        why = item_name(last) + (has_line ? " after" : " without") +
              " a line number";
        return request_result::broken;
    }
    request = {row->kind, ttyno, last.value};
    bytes.erase(0, at + sizeof last);
    return request_result::request;
}

bool request_valid(const line_request &request, std::string &why)
{
    const bool holds = request.kind == request_kind::hold;

    why.clear();
    if (request.ttyno >= TTY_LINES + (holds ? 1U : 0U)) {
        why = "no such line";
    } else if (holds && request.value > uint32_t{TTY_HOLD_MAX}) {
        why = "the time is too long";
    } else if ((request.kind == request_kind::login && request.value != 1) ||
               (request.kind == request_kind::release && request.value != 0)) {
        why = "unknown value " + std::to_string(request.value);
    }
    return why.empty();
}

static std::string line_text(const line_request &request)
{
    const std::string number = std::to_string(request.ttyno);

    if (request.kind == request_kind::release) {
        return "";
    }
    if (request.kind != request_kind::hold) {
        return " ttyno=" + number;
    }
    return " except=" + (request.ttyno == TTY_LINES ? "none" : number);
}

std::string request_text(const line_request &request)
{
    const kind_row &row = row_of(request.kind);
    std::string text = row.name + line_text(request);

    if (row.number != nullptr) {
        text +=
            std::string(" ") + row.number + "=" + std::to_string(request.value);
    }
    return text;
}
