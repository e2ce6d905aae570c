// The telnet protocol: whatever a peer sends, cut anywhere and with whatever
// room there is.
//
// Input: how the bytes are cut (1), what the peer has been asked (1, odd: the
// usual), how many bytes are for the other direction (2), these, and then those
// from the peer, of which 0x80 0x00 stands for urgent data before the next.
#include <string.h>

#include <string>

#include "programs/telnetd/telnet.h"
#include "tests/fuzz/fuzz.h"

constexpr char IAC = '\xff';
constexpr size_t MOST = 4096;

static bool g_asked_for_odd_name;

static bool known(const char *type)
{
    const size_t length = strlen(type);

    g_asked_for_odd_name =
        g_asked_for_odd_name || length == 0 || length >= TELNET_TYPE_SIZE ||
        strspn(type, "abcdefghijklmnopqrstuvwxyz0123456789+-._") != length ||
        strchr("+-._", type[0]) != nullptr;
    return length % 2 == 0;
}

static telnet begin(bool asked)
{
    telnet state = {};
    uint8_t out[32];
    kit_flow flow = {nullptr, 0, out, sizeof out, nullptr, 0};

    state.known = known;
    state.interrupt = 3;
    state.erase = 127;
    state.kill = 21;
    if (asked) {
        telnet_open(&state, &flow);
    }
    return state;
}

struct result {
    std::string out;
    std::string back;
};

using step_function = void(telnet *, kit_flow *);

// All of a text, with so much room each time.
static void put_through(step_function *step, telnet *state,
                        const std::string &text, size_t room, result *all)
{
    const auto *in = reinterpret_cast<const uint8_t *>(text.data());
    size_t left = text.size();

    while (left > 0) {
        fuzz::guarded out(room);
        fuzz::guarded back(room);
        kit_flow flow = {in,
                         left,
                         reinterpret_cast<uint8_t *>(out.data()),
                         room,
                         reinterpret_cast<uint8_t *>(back.data()),
                         room};
        step(state, &flow);
        FUZZ_CHECK(out.intact() && back.intact());
        FUZZ_CHECK(flow.in_left < left);
        FUZZ_CHECK(flow.in + flow.in_left == in + left);
        all->out.append(out.data(), room - flow.out_room);
        all->back.append(back.data(), room - flow.back_room);
        in = flow.in;
        left = flow.in_left;
    }
}

// In pieces of this size, with urgent data where it says so.
static result hear(telnet *state, const std::string &text, size_t piece,
                   size_t room)
{
    static const std::string URGENT("\x80\0", 2);
    result all;
    size_t at = 0;

    while (at < text.size()) {
        const size_t mark = text.find(URGENT, at);
        const size_t end = mark == std::string::npos ? text.size() : mark;
        for (; at < end; at += piece) {
            put_through(telnet_decode, state,
                        text.substr(at, at + piece < end ? piece : end - at),
                        room, &all);
        }
        at = end;
        if (mark != std::string::npos) {
            telnet_urgent(state);
            at += URGENT.size();
        }
    }
    return all;
}

static void check_told(const telnet &state)
{
    FUZZ_CHECK((state.columns == 0) == (state.rows == 0));
    FUZZ_CHECK(state.columns <= 4095 && state.rows <= 4095);
    FUZZ_CHECK(!g_asked_for_odd_name);
    FUZZ_CHECK(state.type[0] == '\0' || strlen(state.type) % 2 == 0);
    FUZZ_CHECK(state.type[0] == '\0' || state.type_settled);
    FUZZ_CHECK(state.sub_length <= TELNET_SUB_SIZE + 1);
}

// Nothing but answers of the kinds that there are, whole.
static void check_answers(const std::string &back)
{
    static const std::string ASK("\xff\xfa\x18\x01\xff\xf0", 6);
    static const std::string HERE("\r\n[yes]\r\n");
    static const std::string MARK("\xff\xf2");

    for (size_t at = 0; at < back.size();) {
        if (back.compare(at, ASK.size(), ASK) == 0) {
            at += ASK.size();
        } else if (back.compare(at, HERE.size(), HERE) == 0) {
            at += HERE.size();
        } else if (back.compare(at, MARK.size(), MARK) == 0) {
            at += MARK.size();
        } else {
            FUZZ_CHECK(at + 2 < back.size() && back[at] == IAC);
            FUZZ_CHECK(back[at + 1] >= '\xfb' && back[at + 1] <= '\xfe');
            at += 3;
        }
    }
}

// What a peer makes of it: a doubled byte is one, and a NUL behind a carriage
// return is none.
static std::string understood(const std::string &said, bool binary)
{
    std::string text;

    for (size_t at = 0; at < said.size(); at++) {
        if (said[at] == IAC) {
            at++;
            FUZZ_CHECK(at < said.size() && said[at] == IAC);
        } else if (!binary && at > 0 && said[at] == '\0' &&
                   said[at - 1] == '\r') {
            continue;
        }
        text += said[at];
    }
    return text;
}

// A line's end inside needs no NUL of its own to be told from one.
static std::string without_nul(std::string text)
{
    size_t at = 0;

    while ((at = text.find('\0', at)) != std::string::npos) {
        text[at] = 'n';
    }
    return text;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > MOST) {
        return 0;
    }
    fuzz::input in(data, size);
    const uint8_t cut = in.take8();
    const bool asked = (in.take8() & 1) != 0;
    const std::string printed = without_nul(in.take(in.take16() % MOST));
    const std::string sent = in.rest();
    g_asked_for_odd_name = false;

    telnet whole = begin(asked);
    telnet pieces = begin(asked);
    const result heard = hear(&whole, sent, MOST, 16 * MOST);
    const result again =
        hear(&pieces, sent, 1 + cut % 7, TELNET_ROOM + cut / 7);
    FUZZ_CHECK(heard.out == again.out);
    FUZZ_CHECK(heard.back == again.back);
    FUZZ_CHECK(memcmp(&whole, &pieces, sizeof whole) == 0);
    FUZZ_CHECK(heard.out.size() <= sent.size());
    check_told(whole);
    check_answers(heard.back);

    const bool aborting = whole.aborting;
    const bool binary = whole.ours[0] == TELNET_ON;
    result said;
    put_through(telnet_encode, &whole, printed, 16 * MOST, &said);
    FUZZ_CHECK(said.back.empty());
    FUZZ_CHECK(understood(said.out, binary) == (aborting ? "" : printed));
    return 0;
}
