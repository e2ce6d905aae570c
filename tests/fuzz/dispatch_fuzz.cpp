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

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>

#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/kernel.h"
#include "vc/list.h"
#include "vc/pending.h"
#include "vc/service.h"
#include "vc/session.h"

constexpr uint32_t MARK = 0x7e7e7e00;
constexpr uint32_t MARK_OWN = 0x7e7e7e7e;
constexpr size_t STEP_LIMIT = 28;
constexpr size_t RECORD_SIZE = sizeof(tty_cmsg);
// How much arrives: nothing at all, an error, a part, or the whole; and then
// whether another thread stops the protocol in the middle of a permit.
constexpr uint8_t ARRIVES_ERROR = 1;
constexpr uint8_t ARRIVES_WHOLE = 16;
constexpr uint8_t ARRIVES_AND_STOPS = 17;

constexpr uint32_t LISTEN_FAULTS = kernel::FAIL_SOCKET | kernel::FAIL_CLOEXEC |
                                   kernel::FAIL_BIND | kernel::FAIL_LISTEN |
                                   kernel::FAIL_OPTION;
// Before and after the session's record exists.
constexpr uint32_t EARLY_FAULTS =
    kernel::FAIL_MEMORY | kernel::FAIL_MASTER | kernel::FAIL_SLAVE;
constexpr uint32_t LATE_FAULTS = kernel::FAIL_ALLOC | kernel::FAIL_INIT |
                                 kernel::FAIL_PAIR | kernel::FAIL_FORK |
                                 kernel::FAIL_RELEASE;
constexpr uint32_t SEND_FAULTS = kernel::FAIL_SEND | kernel::FAIL_SEND_FD;

struct endpoint {
    int family;
    int port;
    const char *path;
    uint32_t protocol;
};

static const endpoint endpoints[] = {
    {AF_INET, 23, nullptr, 6},   {AF_INET6, 23, nullptr, 6},
    {AF_INET, 22, nullptr, 5},   {AF_INET, 2222, nullptr, 11},
    {AF_UNIX, 0, "/run/a", 7},   {AF_UNIX, 0, "/run/b", 7},
    {AF_UNIX, 0, "/run/c", 9},   {AF_TIPC, 5000, nullptr, 3},
    {AF_INET, 4000, nullptr, 0},
};
constexpr size_t SERVICES = sizeof endpoints / sizeof endpoints[0];

struct service_state {
    int fd;
    uint32_t flags;
};

struct session_state {
    int sockfd;
    int master_fd;
    int pid;
};

struct picture {
    service_state services[SERVICES];
    std::map<int, session_state> sessions;
    std::vector<std::pair<int, int>> pending;
};

// What a record should come to.
struct outcome {
    picture state;
    int result = 0;
    bool opens = false; // the service of this place gets a new listener
    size_t opened = 0;
    bool starts = false; // the record's line gets a session
    bool answered = false;
    uint32_t answer = 0;
    std::vector<int> cleaned; // lines, in any order
};

static vc_srv *services[SERVICES];
static std::vector<int> killed;
static bool tangled;
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

static int on_init(int)
{
    return (kernel::now.failing & kernel::FAIL_INIT) != 0 ? -1 : 0;
}

static int on_data(int)
{
    return 0;
}

static int on_kill(int ttyno)
{
    killed.push_back(ttyno);
    return 0;
}

static int on_alloc(int, int inetd_fd, int, int)
{
    FUZZ_CHECK(inetd_fd == kernel::inetd());
    return (kernel::now.failing & kernel::FAIL_ALLOC) != 0 ? -1 : 0;
}

static int on_shell(int, const char *)
{
    return 0;
}

static void add_service(size_t index)
{
    vc_reg reg = {};

    reg.socket_type = endpoints[index].family;
    reg.listen_port = endpoints[index].port;
    reg.listen_path = endpoints[index].path;
    reg.protocol = endpoints[index].protocol;
    reg.init_func = on_init;
    reg.read_func = on_data;
    reg.write_func = on_data;
    reg.kill_func = on_kill;
    reg.alloc_func = on_alloc;
    reg.shell_func = on_shell;
    FUZZ_CHECK(vc_service_reg(&reg) == 0);
    services[index] = vc_srv_of(g_vc_service_lists.prev);
}

// The first registration takes signals that the fuzzer needs.
static bool register_all()
{
    static const int signals[] = {SIGCHLD, SIGHUP, SIGQUIT, SIGINT, SIGPIPE};
    std::vector<struct sigaction> kept(sizeof signals / sizeof signals[0]);

    for (size_t i = 0; i < kept.size(); i++) {
        sigaction(signals[i], nullptr, &kept[i]);
    }
    kernel::reset();
    kernel::now.on = true;
    for (size_t i = 0; i < SERVICES; i++) {
        add_service(i);
    }
    kernel::now.on = false;
    for (size_t i = 0; i < kept.size(); i++) {
        sigaction(signals[i], &kept[i], nullptr);
    }
    return true;
}

static void start_afresh()
{
    kernel::reset();
    tangled = false;
    stopped_meanwhile = -1;
    killed.clear();
    for (size_t i = 0; i < SERVICES; i++) {
        services[i]->listen_fd = -1;
        services[i]->reg.listen_port = endpoints[i].port;
        services[i]->flags = endpoints[i].protocol == VC_PROTOCOL_SSH_ALT
                                 ? SRV_CLOSED
                                 : SRV_ANNOUNCED;
    }
}

// Both ways round a list, which must be the same elements.
static size_t checked_length(const vc_list *head)
{
    size_t length = 0;

    for (const vc_list *link = head->next; link != head; link = link->next) {
        FUZZ_CHECK(link->next->prev == link && link->prev->next == link);
        FUZZ_CHECK(++length < 1000);
    }
    FUZZ_CHECK(head->next->prev == head && head->prev->next == head);
    return length;
}

static bool carries_sessions(int ttyno)
{
    return (ttyno >= 258 && ttyno <= 1148) || (ttyno >= 1421 && ttyno <= 1585);
}

static session_state look_at_session(int ttyno)
{
    const vc_child *child = vc_child_at(ttyno);

    FUZZ_CHECK(child->ttyno == ttyno && carries_sessions(ttyno));
    FUZZ_CHECK(child->inetd_fd == kernel::inetd());
    return {child->sockfd, child->master_fd, vc_child_pid(child)};
}

static picture look()
{
    picture seen = {};

    FUZZ_CHECK(checked_length(&g_vc_service_lists) == SERVICES);
    for (size_t i = 0; i < SERVICES; i++) {
        seen.services[i] = {services[i]->listen_fd, services[i]->flags};
    }
    for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
        if (vc_child_at(ttyno) != nullptr) {
            seen.sessions[ttyno] = look_at_session(ttyno);
        }
    }
    const size_t waiting = checked_length(&g_vc_accept_list);
    FUZZ_CHECK(g_vc_accept_fd_num == static_cast<int>(waiting));
    for (const vc_list *link = g_vc_accept_list.next; link != &g_vc_accept_list;
         link = link->next) {
        const auto *entry = reinterpret_cast<const vc_accept_entry *>(link);
        seen.pending.emplace_back(entry->fd, entry->accept_id);
    }
    return seen;
}

// Every open descriptor belongs to somebody, or it is never closed again.
static void check_owners(const picture &seen)
{
    std::set<int> owned = {0, 1, 2, kernel::inetd()};

    for (const service_state &service : seen.services) {
        owned.insert(service.fd);
    }
    for (const auto &session : seen.sessions) {
        owned.insert(session.second.sockfd);
        owned.insert(session.second.master_fd);
    }
    for (const auto &waiting : seen.pending) {
        owned.insert(waiting.first);
    }
    for (int fd = 0; fd < kernel::DESCRIPTORS; fd++) {
        FUZZ_CHECK(kernel::kind_of(fd) == kernel::kind::none ||
                   owned.count(fd) == 1);
    }
}

// Whatever is owned is open, and what it is owned as.
static void check_kinds(const picture &seen)
{
    std::set<int> distinct;

    for (const service_state &service : seen.services) {
        FUZZ_CHECK(service.fd == -1 ||
                   kernel::kind_of(service.fd) == kernel::kind::socket);
        FUZZ_CHECK(service.fd == -1 || distinct.insert(service.fd).second);
    }
    for (const auto &session : seen.sessions) {
        const session_state &s = session.second;
        FUZZ_CHECK(s.sockfd < 0 || s.sockfd >= kernel::DESCRIPTORS ||
                   kernel::kind_of(s.sockfd) == kernel::kind::connection);
        FUZZ_CHECK(kernel::kind_of(s.master_fd) == kernel::kind::pty);
        FUZZ_CHECK(distinct.insert(s.master_fd).second);
        FUZZ_CHECK(s.pid >= kernel::FIRST_PROCESS);
    }
    for (const auto &waiting : seen.pending) {
        FUZZ_CHECK(kernel::kind_of(waiting.first) == kernel::kind::connection);
    }
}

static void check_state(const picture &seen)
{
    check_owners(seen);
    if (!tangled) {
        check_kinds(seen);
        FUZZ_CHECK(kernel::now.bad_closes == 0);
    }
}

static bool of_protocol(size_t i, const tty_cmsg &msg)
{
    return services[i]->reg.protocol == static_cast<uint32_t>(msg.protocol);
}

static bool of_family(size_t i, const tty_cmsg &msg)
{
    return services[i]->reg.socket_type == msg.socktype;
}

static bool on_port(size_t i, const tty_cmsg &msg)
{
    return services[i]->reg.listen_port == msg.port;
}

static std::string path_of(const tty_cmsg &msg)
{
    return {msg.path, strnlen(msg.path, sizeof msg.path)};
}

static bool on_path(size_t i, const std::string &path)
{
    return endpoints[i].path != nullptr && path == endpoints[i].path;
}

static void expect_end(outcome *expected, int ttyno)
{
    expected->state.sessions.erase(ttyno);
    expected->cleaned.push_back(ttyno);
}

static void expect_reset(outcome *expected)
{
    while (!expected->state.sessions.empty()) {
        expect_end(expected, expected->state.sessions.begin()->first);
    }
    for (size_t i = 0; i < SERVICES; i++) {
        service_state &service = expected->state.services[i];
        const bool keeps = endpoints[i].protocol == VC_PROTOCOL_SSH_ALT;
        service.flags &= ~(SRV_ANNOUNCED | (keeps ? 0U : SRV_CLOSED));
        service.fd = -1;
    }
    expected->state.pending.clear();
    expected->result = -1;
}

static void expect_assignment(outcome *expected, const tty_cmsg &msg,
                              uint32_t failing)
{
    auto &pending = expected->state.pending;
    const auto entry = std::find(pending.begin(), pending.end(),
                                 std::make_pair(msg.sockfd, msg.accept_id));
    bool known = false;

    if (entry != pending.end()) {
        pending.erase(entry);
    }
    if (msg.ttyno < 0 || msg.ttyno > 1585) {
        return;
    }
    expected->answered = true;
    expected->answer = 0x002;
    if (!carries_sessions(msg.ttyno) ||
        expected->state.sessions.count(msg.ttyno) != 0 ||
        (failing & EARLY_FAULTS) != 0) {
        return;
    }
    for (size_t i = 0; i < SERVICES; i++) {
        known = known || (msg.port != 0 && on_port(i, msg)) ||
                on_path(i, path_of(msg));
    }
    if (known && (failing & LATE_FAULTS) == 0) {
        expected->starts = true;
        expected->answer = 0x020;
    } else {
        expected->cleaned.push_back(msg.ttyno);
    }
}

static bool refused(const tty_cmsg &msg)
{
    for (size_t i = 0; i < SERVICES; i++) {
        const uint32_t flags = services[i]->flags;
        if (of_protocol(i, msg) &&
            (((msg.vc_flag & 0x400) != 0 && on_port(i, msg) &&
              (flags & SRV_CLOSED) != 0) ||
             (of_family(i, msg) && (flags & SRV_STOPPED) != 0))) {
            return true;
        }
    }
    return false;
}

static bool can_listen(const tty_cmsg &msg, bool by_path, uint32_t failing)
{
    switch (msg.socktype) {
    case AF_UNIX:
        return by_path && path_of(msg).size() < VC_PATH_SIZE &&
               (failing & LISTEN_FAULTS) == 0;
    case AF_INET:
    case AF_INET6:
    case AF_TIPC:
        return (failing & LISTEN_FAULTS) == 0;
    default:
        return false;
    }
}

static void expect_listener(outcome *expected, const tty_cmsg &msg,
                            bool by_path)
{
    for (size_t i = 0; i < SERVICES; i++) {
        if (of_protocol(i, msg) && of_family(i, msg) &&
            (by_path ? on_path(i, path_of(msg)) : on_port(i, msg))) {
            service_state &service = expected->state.services[i];
            expected->opens = service.fd < 0 &&
                              (by_path || (service.flags & SRV_STOPPED) == 0);
            expected->opened = i;
            if (expected->opens) {
                service.flags |= SRV_ANNOUNCED;
                service.flags &= ~SRV_CLOSED;
            }
            return;
        }
    }
}

static void expect_no_listener(outcome *expected, const tty_cmsg &msg,
                               bool by_path)
{
    const auto paired = [](uint32_t protocol) {
        return protocol == 5 || protocol == 11;
    };

    expected->result = -1;
    expected->answered = true;
    expected->answer = by_path ? 0x100 : 0x010;
    for (size_t i = 0; i < SERVICES; i++) {
        service_state &service = expected->state.services[i];
        if (by_path && of_protocol(i, msg) && of_family(i, msg) &&
            on_path(i, path_of(msg))) {
            service.flags &= ~SRV_ANNOUNCED;
            return;
        }
        if (!by_path && (of_protocol(i, msg) ||
                         (paired(endpoints[i].protocol) &&
                          paired(static_cast<uint32_t>(msg.protocol))))) {
            service.flags &= ~SRV_ANNOUNCED;
            service.fd = -1;
        }
    }
}

static void expect_stop_by_daemon(outcome *expected, int protocol)
{
    for (size_t i = 0; i < SERVICES; i++) {
        service_state &service = expected->state.services[i];
        if (static_cast<int>(endpoints[i].protocol) == protocol &&
            (service.flags & SRV_CLOSED) == 0) {
            service.fd = -1;
            service.flags = SRV_CLOSED | SRV_STOPPED;
        }
    }
}

static void expect_permit(outcome *expected, const tty_cmsg &msg, bool by_path,
                          uint32_t failing)
{
    if ((!by_path && refused(msg)) || msg.pid != getpid()) {
        return;
    }
    expect_stop_by_daemon(expected, stopped_meanwhile);
    if (can_listen(msg, by_path, failing)) {
        expect_listener(expected, msg, by_path);
    } else {
        expect_no_listener(expected, msg, by_path);
    }
}

static void expect_stop(outcome *expected, const tty_cmsg &msg)
{
    for (size_t i = 0; i < SERVICES; i++) {
        if (msg.pid == getpid() && of_protocol(i, msg)) {
            service_state &service = expected->state.services[i];
            service.fd = -1;
            service.flags &= ~SRV_ANNOUNCED;
            service.flags |= SRV_CLOSED;
        }
    }
}

static outcome expect(const picture &before, const tty_cmsg &msg,
                      uint32_t failing)
{
    outcome expected;

    expected.state = before;
    if ((msg.vc_flag & 0x001) != 0) {
        expect_assignment(&expected, msg, failing);
    } else if ((msg.vc_flag & 0x002) != 0) {
        if (msg.ttyno >= 258 && msg.ttyno <= 321 &&
            before.sessions.count(msg.ttyno) != 0) {
            expect_end(&expected, msg.ttyno);
        }
    } else if ((msg.vc_flag & 0x088) != 0) {
        expect_permit(&expected, msg, (msg.vc_flag & 0x008) == 0, failing);
    } else if ((msg.vc_flag & 0x110) != 0) {
        expect_reset(&expected);
    } else if ((msg.vc_flag & 0x200) != 0) {
        expect_stop(&expected, msg);
    }
    return expected;
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
    kernel::now.on = true;
    const int result = vc_deal_msg(kernel::inetd());
    kernel::now.on = false;
    kernel::now.failing = 0;
    return result;
}

// A record that does not come whole ends the connection.
static void lose_connection(const void *bytes, size_t size, uint32_t failing)
{
    const picture before = look();
    outcome expected;

    expected.state = before;
    expect_reset(&expected);
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
    const outcome expected = expect(before, msg, failing);
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

    kernel::now.on = true;
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
    kernel::now.on = false;
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
    for (size_t steps = 0; steps < STEP_LIMIT && in.left() > 0; steps++) {
        step(&in);
    }
    // The end of the inetd leaves nothing behind.
    lose_connection("", 0, 0);
    return 0;
}
