// Records from the inetd against registered services, sessions and pending
// connections, on a kernel in memory.
//
// Input: steps. The low three bits of a step's first byte say what it is:
//   0 to 4  a record: what fails meanwhile (2 bytes, see kernel.h), how much
//           of it arrives (1), its 156 bytes
//   5       a connection is accepted and reported (1 byte: its id)
//   6       a session's process ends (1 byte: which)
//   7       another thread opens, stops or moves a protocol's listeners (1
//           byte: what, protocol; 2 bytes each: old and new port)
// In a record the numbers that an input cannot know stand as marks, see
// resolve().
//
// Each record is carried out a second time on a picture of the state, and the
// service must come to the same picture: result, listeners and their flags,
// sessions, pending connections, answers, descriptors. A record that names a
// descriptor which is not the service's to give away (a listener, another
// session's connection) is obeyed all the same; from then on the numbers have
// several owners, and only what still holds then is checked.
#include "vc/dispatch.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tests/fuzz/dispatch_model.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/kernel.h"
#include "vc/list.h"
#include "vc/pending.h"
#include "vc/session.h"

using namespace dispatch;

constexpr uint32_t MARK = 0x7e7e7e00;
constexpr uint32_t MARK_OWN = 0x7e7e7e7e;
constexpr size_t STEP_LIMIT = 28;
constexpr size_t RECORD_SIZE = sizeof(tty_cmsg);
// How much arrives: nothing at all, an error, a part, or the whole; and then
// whether another thread stops the protocol in the middle of a permit.
constexpr uint8_t ARRIVES_ERROR = 1;
constexpr uint8_t ARRIVES_WHOLE = 16;
constexpr uint8_t ARRIVES_AND_STOPS = 17;

constexpr uint32_t SEND_FAULTS = kernel::FAIL_SEND | kernel::FAIL_SEND_FD;

// The protocol that another thread stops, -1 for none.
static int stopped_meanwhile;

static bool same(const session_state &a, const session_state &b)
{
    return a.sockfd == b.sockfd && a.master_fd == b.master_fd && a.pid == b.pid;
}

static bool same(const service_state &a, const service_state &b)
{
    return a.fd == b.fd && a.flags == b.flags;
}

static void check_sessions(const outcome &expected, const picture &after,
                           const tty_cmsg &msg)
{
    std::map<int, session_state> sessions = expected.state.sessions;

    if (expected.starts) {
        FUZZ_CHECK(after.sessions.count(msg.ttyno) == 1);
        const session_state &made = after.sessions.at(msg.ttyno);
        FUZZ_CHECK(made.sockfd == msg.sockfd);
        FUZZ_CHECK(made.pid == kernel::now.next_process - 1);
        sessions[msg.ttyno] = made;
    }
    FUZZ_CHECK(sessions.size() == after.sessions.size());
    for (const auto &session : sessions) {
        FUZZ_CHECK(after.sessions.count(session.first) == 1);
        FUZZ_CHECK(same(session.second, after.sessions.at(session.first)));
    }
}

static void check_services(const outcome &expected, const picture &after)
{
    for (size_t i = 0; i < SERVICES; i++) {
        service_state service = expected.state.services[i];
        if (expected.opens && expected.opened == i) {
            FUZZ_CHECK(after.services[i].fd >= 0);
            service.fd = after.services[i].fd;
        }
        FUZZ_CHECK(same(service, after.services[i]));
    }
}

// Line-cleans for the sessions that ended, then the answer: the record sent
// back with the answer's flag.
static void check_answers(const outcome &expected, const picture &after,
                          tty_cmsg msg, uint32_t failing)
{
    std::vector<tty_cmsg> sent = kernel::take_sent();
    std::vector<int> cleaned;

    if ((failing & SEND_FAULTS) != 0) {
        FUZZ_CHECK(sent.empty());
        return;
    }
    if (expected.answered) {
        FUZZ_CHECK(!sent.empty());
        msg.vc_flag = expected.answer;
        if (expected.starts) {
            msg.pid = after.sessions.at(msg.ttyno).pid;
        }
        FUZZ_CHECK(memcmp(&sent.back(), &msg, sizeof msg) == 0);
        sent.pop_back();
    }
    for (const tty_cmsg &record : sent) {
        FUZZ_CHECK(record.vc_flag == VC_FLAG_CLIENT_CLEAR);
        cleaned.push_back(record.ttyno);
    }
    std::vector<int> wanted = expected.cleaned;
    std::sort(wanted.begin(), wanted.end());
    std::sort(cleaned.begin(), cleaned.end());
    FUZZ_CHECK(cleaned == wanted);
}

// The service's callback is called once for each session that ended.
static void check_kill_callbacks(const picture &before, const picture &after,
                                 const tty_cmsg &msg)
{
    for (const auto &session : before.sessions) {
        const bool ended = after.sessions.count(session.first) == 0;
        FUZZ_CHECK(std::count(killed.begin(), killed.end(), session.first) ==
                   (ended ? 1 : 0));
    }
    for (const int ttyno : killed) {
        FUZZ_CHECK(before.sessions.count(ttyno) == 1 || ttyno == msg.ttyno);
    }
}

static void check(const outcome &expected, int result, const picture &before,
                  const tty_cmsg &msg, uint32_t failing)
{
    const picture after = look();

    FUZZ_CHECK(result == expected.result);
    check_state(after);
    if (tangled) {
        kernel::now.sent.clear();
        return;
    }
    check_services(expected, after);
    FUZZ_CHECK(after.pending == expected.state.pending);
    check_sessions(expected, after, msg);
    check_answers(expected, after, msg, failing);
    check_kill_callbacks(before, after, msg);
}

static void stop_by_daemon()
{
    vc_deal_service_listen(false, stopped_meanwhile);
}

static int deal(const void *bytes, size_t size, uint32_t failing)
{
    kernel::now.incoming = bytes;
    kernel::now.incoming_size = size;
    kernel::now.failing = failing;
    kernel::now.on_socket = stopped_meanwhile >= 0 ? stop_by_daemon : nullptr;
    killed.clear();
    kernel::turn(true);
    const int result = vc_deal_msg(kernel::inetd());
    kernel::turn(false);
    kernel::now.failing = 0;
    return result;
}

// A record that does not come whole ends the connection.
static void lose_connection(const void *bytes, size_t size, uint32_t failing)
{
    const picture before = look();
    const outcome expected = expect_reset(before);
    const int result = deal(bytes, size, failing);
    check(expected, result, before, {}, failing);
}

static bool is_mark(int32_t value)
{
    return (static_cast<uint32_t>(value) & 0xffffff00) == MARK;
}

static size_t mark_index(int32_t value)
{
    return static_cast<uint32_t>(value) & 0xff;
}

// Marks become what they stand for: the own process id; the descriptor and id
// of a pending connection, or of a new one that nobody waits for; the endpoint
// of a service.
static void resolve(tty_cmsg *msg, const picture &seen)
{
    const bool takes = (msg->vc_flag & VC_FLAG_CLIENT_ALLOC) != 0;

    if (static_cast<uint32_t>(msg->pid) == MARK_OWN) {
        msg->pid = getpid();
    }
    if (is_mark(msg->protocol)) {
        const size_t i = mark_index(msg->protocol) % SERVICES;
        const vc_reg &reg = services[i]->reg;
        msg->socktype = reg.socket_type;
        msg->port = reg.listen_port;
        msg->protocol = static_cast<int32_t>(reg.protocol);
        strncpy(msg->path, reg.listen_path != nullptr ? reg.listen_path : "",
                sizeof msg->path);
    }
    if (is_mark(msg->sockfd)) {
        const size_t i = mark_index(msg->sockfd);
        if (i < seen.pending.size()) {
            msg->sockfd = seen.pending[i].first;
            msg->accept_id = static_cast<uint32_t>(msg->accept_id) == MARK_OWN
                                 ? seen.pending[i].second
                                 : msg->accept_id;
        } else {
            msg->sockfd =
                takes ? kernel::open_descriptor(kernel::kind::connection) : -1;
        }
    }
}

// Whether an assignment gives away a descriptor that has another owner.
static bool tangles(const tty_cmsg &msg, const picture &seen)
{
    if ((msg.vc_flag & VC_FLAG_CLIENT_ALLOC) == 0 || msg.sockfd < 0 ||
        msg.sockfd >= kernel::DESCRIPTORS) {
        return false;
    }
    for (const auto &session : seen.sessions) {
        if (session.second.sockfd == msg.sockfd) {
            return true;
        }
    }
    for (const auto &waiting : seen.pending) {
        if (waiting.first == msg.sockfd) {
            return waiting.second != msg.accept_id;
        }
    }
    return kernel::kind_of(msg.sockfd) != kernel::kind::connection;
}

static void deliver(fuzz::input *in)
{
    const uint32_t failing = in->take16();
    const uint8_t arrives = in->take8();
    std::string bytes = in->take(RECORD_SIZE);
    tty_cmsg msg;

    bytes.resize(RECORD_SIZE, '\0');
    if (arrives < ARRIVES_WHOLE) {
        lose_connection(arrives == ARRIVES_ERROR ? nullptr : bytes.data(),
                        arrives * size_t{10}, failing);
        return;
    }
    const picture before = look();
    memcpy(&msg, bytes.data(), sizeof msg);
    resolve(&msg, before);
    tangled = tangled || tangles(msg, before);
    stopped_meanwhile = arrives == ARRIVES_AND_STOPS ? msg.protocol : -1;
    const outcome expected = expect(before, msg, failing, stopped_meanwhile);
    const int result = deal(&msg, sizeof msg, failing);
    stopped_meanwhile = -1;
    check(expected, result, before, msg, failing);
}

// As an accepted connection leaves it.
static void accept_connection(int accept_id)
{
    const int fd = kernel::open_descriptor(kernel::kind::connection);
    auto *entry =
        static_cast<vc_accept_entry *>(malloc(sizeof(vc_accept_entry)));

    FUZZ_CHECK(fd >= 0);
    entry->fd = fd;
    entry->accept_id = accept_id;
    list_add_tail(&entry->link, &g_vc_accept_list);
    g_vc_accept_fd_num++;
}

static void end_process(size_t which)
{
    const picture seen = look();

    if (seen.sessions.empty()) {
        return;
    }
    auto session = seen.sessions.begin();
    std::advance(session, static_cast<ptrdiff_t>(which % seen.sessions.size()));
    vc_child_set_exited(vc_child_at(session->first));
    kernel::now.gone.insert(session->second.pid);
}

// What the daemon's other threads may do between two records.
static void control(fuzz::input *in)
{
    const uint8_t what = in->take8();
    const int protocol = what >> 2 & 0x0f;
    const int old_port = in->take16();
    const int new_port = in->take16();

    kernel::turn(true);
    switch (what & 0x03) {
    case 0:
        FUZZ_CHECK(vc_deal_service_listen(true, protocol) == 0);
        break;
    case 1:
        FUZZ_CHECK(vc_deal_service_listen(false, protocol) == 0);
        break;
    default:
        vc_service_update_port(protocol, old_port, new_port);
        break;
    }
    kernel::turn(false);
    check_state(look());
}

static void step(fuzz::input *in)
{
    const uint8_t what = in->take8() & 0x07;

    switch (what) {
    case 5:
        accept_connection(in->take8());
        break;
    case 6:
        end_process(in->take8());
        break;
    case 7:
        control(in);
        break;
    default:
        deliver(in);
        break;
    }
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool registered = register_all();
    fuzz::input in(data, size);

    FUZZ_CHECK(registered);
    start_afresh();
    stopped_meanwhile = -1;
    for (size_t steps = 0; steps < STEP_LIMIT && in.left() > 0; steps++) {
        step(&in);
    }
    // The end of the inetd leaves nothing behind.
    lose_connection("", 0, 0);
    return 0;
}
