#include "tests/fuzz/dispatch_model.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tests/fuzz/kernel.h"

namespace dispatch
{

constexpr uint32_t LISTEN_FAULTS = kernel::FAIL_SOCKET | kernel::FAIL_CLOEXEC |
                                   kernel::FAIL_BIND | kernel::FAIL_LISTEN |
                                   kernel::FAIL_OPTION;
// Before and after the session's record exists.
constexpr uint32_t EARLY_FAULTS =
    kernel::FAIL_MEMORY | kernel::FAIL_MASTER | kernel::FAIL_SLAVE;
constexpr uint32_t LATE_FAULTS = kernel::FAIL_ALLOC | kernel::FAIL_INIT |
                                 kernel::FAIL_PAIR | kernel::FAIL_FORK |
                                 kernel::FAIL_RELEASE;
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

static void expect_end_of_all(outcome *expected)
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
                          uint32_t failing, int stopped_meanwhile)
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

outcome expect(const picture &before, const tty_cmsg &msg, uint32_t failing,
               int stopped_meanwhile)
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
        expect_permit(&expected, msg, (msg.vc_flag & 0x008) == 0, failing,
                      stopped_meanwhile);
    } else if ((msg.vc_flag & 0x110) != 0) {
        expect_end_of_all(&expected);
    } else if ((msg.vc_flag & 0x200) != 0) {
        expect_stop(&expected, msg);
    }
    return expected;
}

outcome expect_reset(const picture &before)
{
    outcome expected;

    expected.state = before;
    expect_end_of_all(&expected);
    return expected;
}

} // namespace dispatch
