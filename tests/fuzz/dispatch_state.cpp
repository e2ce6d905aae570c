#include "tests/fuzz/dispatch_state.h"

#include <signal.h>
#include <string.h>

#include <set>

#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/kernel.h"
#include "vc/list.h"
#include "vc/pending.h"
#include "vc/session.h"

namespace dispatch
{

const endpoint endpoints[SERVICES] = {
    {AF_INET, 23, nullptr, 6},   {AF_INET6, 23, nullptr, 6},
    {AF_INET, 22, nullptr, 5},   {AF_INET, 2222, nullptr, 11},
    {AF_UNIX, 0, "/run/a", 7},   {AF_UNIX, 0, "/run/b", 7},
    {AF_UNIX, 0, "/run/c", 9},   {AF_TIPC, 5000, nullptr, 3},
    {AF_INET, 4000, nullptr, 0},
};

vc_srv *services[SERVICES];
std::vector<int> killed;
bool tangled;

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
bool register_all()
{
    static const int signals[] = {SIGCHLD, SIGHUP, SIGQUIT, SIGINT, SIGPIPE};
    std::vector<struct sigaction> kept(sizeof signals / sizeof signals[0]);

    for (size_t i = 0; i < kept.size(); i++) {
        sigaction(signals[i], nullptr, &kept[i]);
    }
    kernel::install();
    kernel::reset();
    kernel::turn(true);
    for (size_t i = 0; i < SERVICES; i++) {
        add_service(i);
    }
    kernel::turn(false);
    for (size_t i = 0; i < kept.size(); i++) {
        sigaction(signals[i], &kept[i], nullptr);
    }
    return true;
}

void start_afresh()
{
    kernel::reset();
    tangled = false;
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

bool carries_sessions(int ttyno)
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

picture look()
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

void check_state(const picture &seen)
{
    check_owners(seen);
    if (!tangled) {
        check_kinds(seen);
        FUZZ_CHECK(kernel::now.bad_closes == 0);
    }
}

} // namespace dispatch
