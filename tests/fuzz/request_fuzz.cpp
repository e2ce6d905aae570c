// Requests to the line administration daemon: built, sent, and taken apart
// again by the example daemon's decoder, however the stream was cut.
//
// Input: number of items (1 byte), the items (type 2, value 4), sizes of the
// reads (1 byte each, up to a zero), bytes that the stream brings besides.
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

#include <ttyline/tty.h>

#include "programs/ttylined/request.h"
#include "tests/fuzz/fuzz.h"
#include "tty/admin_channel.h"
#include "tty/lock.h"

constexpr size_t ITEM_SIZE = 8;
constexpr size_t ITEM_LIMIT = ADMIN_REQUEST_SIZE / ITEM_SIZE;
constexpr uint8_t ITEM_COUNT_MASK = 0x0f;
constexpr size_t STREAM_LIMIT = 1024;
constexpr size_t CUT_LIMIT = 64;

struct item {
    uint16_t type;
    uint32_t value;
};

// What a decoder made of a stream.
struct decoded {
    std::vector<line_request> requests;
    std::string left;
    std::string why;
    bool broken = false;
};

static std::string wire_item(uint16_t type, uint16_t length, uint32_t value)
{
    char bytes[ITEM_SIZE];

    memcpy(bytes, &type, sizeof type);
    memcpy(bytes + 2, &length, sizeof length);
    memcpy(bytes + 4, &value, sizeof value);
    return {bytes, sizeof bytes};
}

// The administration daemon's end of the connection.
static int connect_daemon()
{
    struct sockaddr_un address = {};
    const std::string path = fuzz::runtime_directory() + "/mng/tty/.tty_rl";

    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    FUZZ_CHECK(bind(listener, reinterpret_cast<struct sockaddr *>(&address),
                    sizeof address) == 0);
    FUZZ_CHECK(listen(listener, 1) == 0);
    FUZZ_CHECK(admin_enter());
    ttylib_leave();
    const int fd = accept(listener, nullptr, nullptr);
    FUZZ_CHECK(fd >= 0);
    close(listener);
    return fd;
}

static std::string received(int daemon)
{
    char bytes[2 * ADMIN_REQUEST_SIZE];

    const ssize_t got = recv(daemon, bytes, sizeof bytes, MSG_DONTWAIT);
    return {bytes, got > 0 ? static_cast<size_t>(got) : 0};
}

// Builds the request between guards and checks it after each item.
static std::string build(const std::vector<item> &items)
{
    struct {
        uint8_t before[ITEM_SIZE];
        admin_request request;
        uint8_t after[ITEM_SIZE];
    } field;
    uint8_t guard[ITEM_SIZE];
    std::string expected;

    memset(guard, 0x5a, sizeof guard);
    memcpy(field.before, guard, sizeof guard);
    memcpy(field.after, guard, sizeof guard);
    field.request = {};
    for (const item &added : items) {
        admin_append(&field.request, added.type, added.value);
        if (expected.size() < ADMIN_REQUEST_SIZE) {
            expected += wire_item(added.type, 4, added.value);
        }
        const std::string bytes(field.request.bytes,
                                field.request.bytes +
                                    sizeof field.request.bytes);
        FUZZ_CHECK(field.request.used == expected.size());
        FUZZ_CHECK(bytes.substr(0, expected.size()) == expected);
        FUZZ_CHECK(bytes.find_first_not_of('\0', expected.size()) ==
                   std::string::npos);
    }
    FUZZ_CHECK(memcmp(field.before, guard, sizeof guard) == 0);
    FUZZ_CHECK(memcmp(field.after, guard, sizeof guard) == 0);
    FUZZ_CHECK(items.size() > ITEM_LIMIT ||
               expected.size() == items.size() * ITEM_SIZE);
    return expected;
}

static void send_built(int daemon, const std::string &bytes)
{
    admin_request request = {};

    memcpy(request.bytes, bytes.data(), bytes.size());
    request.used = static_cast<uint32_t>(bytes.size());
    FUZZ_CHECK(admin_enter());
    FUZZ_CHECK(admin_send(&request) == 0);
    ttylib_leave();
    FUZZ_CHECK(received(daemon) == bytes);
}

static uint16_t type_of(request_kind kind)
{
    switch (kind) {
    case request_kind::login:
        return TTYLIB_TLV_LOGSUCC;
    case request_kind::speed:
        return TTYLIB_TLV_SPEED;
    case request_kind::session_timeout:
        return TTYLIB_TLV_SESSION_TIMEOUT;
    case request_kind::exec_timeout:
        return TTYLIB_TLV_EXEC_TIMEOUT;
    case request_kind::hold:
        return TTYLIB_TLV_HOLD_TIME;
    case request_kind::release:
        break;
    }
    return TTYLIB_TLV_RELEASE;
}

static std::string encoded(const line_request &request)
{
    const std::string last = wire_item(type_of(request.kind), 4, request.value);

    if (request.kind == request_kind::release) {
        return last;
    }
    return wire_item(TTYLIB_TLV_TTYNO, 4, request.ttyno) + last;
}

static void check_judgement(const line_request &request)
{
    std::string why = "left over";

    const bool valid = request_valid(request, why);
    FUZZ_CHECK(valid == why.empty());
    if (valid && request.kind == request_kind::hold) {
        FUZZ_CHECK(request.ttyno <= TTY_LINES && request.value <= 1800);
    } else if (valid) {
        FUZZ_CHECK(request.ttyno < TTY_LINES);
    }
    FUZZ_CHECK(!request_text(request).empty());
}

// Takes everything off that can be taken.
static void decode(decoded *result)
{
    line_request request = {};

    while (!result->broken) {
        const std::string before = result->left;
        const request_result found =
            request_next(result->left, request, result->why);
        if (found == request_result::request) {
            FUZZ_CHECK(before == encoded(request) + result->left);
            check_judgement(request);
            result->requests.push_back(request);
            continue;
        }
        FUZZ_CHECK(result->left == before);
        result->broken = found == request_result::broken;
        FUZZ_CHECK(result->broken != result->why.empty());
        // Two whole items are a request or none.
        FUZZ_CHECK(result->broken || before.size() < 2 * ITEM_SIZE);
        return;
    }
}

static bool same(const line_request &a, const line_request &b)
{
    return a.kind == b.kind && a.ttyno == b.ttyno && a.value == b.value;
}

static void check_decoder(const std::string &stream, const std::string &cuts)
{
    decoded whole;
    decoded cut;
    size_t at = 0;
    size_t next = 0;

    whole.left = stream;
    decode(&whole);
    while (at < stream.size() && !cut.broken) {
        const size_t length =
            cuts.empty() ? 1 : static_cast<uint8_t>(cuts[next++ % cuts.size()]);
        cut.left += stream.substr(at, length);
        at += length;
        decode(&cut);
    }
    FUZZ_CHECK(cut.broken == whole.broken && cut.why == whole.why);
    FUZZ_CHECK(cut.requests.size() == whole.requests.size());
    for (size_t i = 0; i < whole.requests.size(); i++) {
        FUZZ_CHECK(same(cut.requests[i], whole.requests[i]));
    }
    FUZZ_CHECK(whole.broken || cut.left == whole.left);
}

// What the library itself sends is never refused.
static void check_operations(int daemon, const item &with)
{
    static const char *const names[] = {"SPEED", "SESSION_TIMEOUT",
                                        "EXEC_TIMEOUT"};
    std::string why;
    line_request request = {};
    std::string bytes;

    FUZZ_CHECK(tty_cfg_update(with.value % TTY_LINES, names[with.type % 3],
                              with.value) == 0);
    const bool held = tty_hold_line(with.value, with.type) == 0;
    FUZZ_CHECK(held == (with.value <= TTY_LINES && with.type <= 1800));
    FUZZ_CHECK(tty_release_line() == 0);
    bytes = received(daemon);
    for (int left = held ? 3 : 2; left > 0; left--) {
        FUZZ_CHECK(request_next(bytes, request, why) ==
                   request_result::request);
        FUZZ_CHECK(request_valid(request, why));
    }
    FUZZ_CHECK(request.kind == request_kind::release && bytes.empty());
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const int daemon = connect_daemon();
    fuzz::input in(data, size);
    std::vector<item> items;

    for (int count = in.take8() & ITEM_COUNT_MASK; count > 0; count--) {
        const uint16_t type = in.take16();
        items.push_back({type, in.take32()});
    }
    const std::string cuts = in.text(CUT_LIMIT);
    const std::string built = build(items);
    send_built(daemon, built);
    check_decoder(built + in.take(STREAM_LIMIT), cuts);
    if (!items.empty()) {
        check_operations(daemon, items[0]);
    }
    return 0;
}
