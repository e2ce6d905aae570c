// The loop never sees the connection or the terminal of a session: both are
// kept aside for the keeper, and under their numbers lie the bell and the
// channel, which are readable when there is something to hear. So nothing is
// ever left over from one turn to the next, no client makes the loop wait, and
// it turns only when sessions begin, speak or end.
#include "kit/moments.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kit/admission.h"
#include "kit/bell.h"
#include "kit/clock.h"
#include "kit/hearing.h"
#include "kit/keeper.h"
#include "kit/unrelayed.h"
#include "kit/warden.h"

constexpr size_t REASON_SIZE = 128;
// Above the standard streams, whatever of them the daemon has closed.
constexpr int LOWEST_NUMBER = 3;

static int keep_aside(int fd)
{
    return fcntl(fd, F_DUPFD_CLOEXEC, LOWEST_NUMBER);
}

// Lays one end of a new pair over a number that the service watches; the other
// end is the keeper's.
static bool lay_over(int number, int *daemon_end, int *other_end)
{
    int ends[2];

    if (!kit_pair_open(ends)) {
        return false;
    }
    const bool laid = dup3(ends[0], number, O_CLOEXEC) == number;
    close(ends[0]);
    *daemon_end = laid ? number : -1;
    *other_end = ends[1];
    return laid;
}

// Until the keeper has them the daemon holds what it needs.
static bool take_over(kit_entry *entry, int sockfd, int master_fd)
{
    entry->connection = keep_aside(sockfd);
    entry->master = keep_aside(master_fd);
    return entry->connection >= 0 && entry->master >= 0 &&
           lay_over(sockfd, &entry->bell, &entry->keeper_bell) &&
           lay_over(master_fd, &entry->channel, &entry->program_channel);
}

static bool let_in(const kit_entry *entry, int sockfd)
{
    char reason[REASON_SIZE];

    if (entry->node == nullptr) {
        return false;
    }
    if (kit_admission_decide(entry, reason, sizeof reason)) {
        return true;
    }
    kit_admission_refuse(entry, sockfd, reason);
    return false;
}

static void forget(kit_entry *entry)
{
    kit_table_take(entry);
    kit_entry_free(entry);
}

static bool is_unrelayed(const kit_entry *entry)
{
    return kit_unrelayed(entry->session.service->protocol);
}

static int on_alloc(int ttyno, int inetd_fd, int sockfd, int master_fd)
{
    (void)inetd_fd;
    kit_entry *entry = kit_entry_make(ttyno);
    if (entry == nullptr) {
        return -1;
    }
    kit_admission_describe(entry, sockfd);
    // Asked now, while the number is still the connection's.
    vc_service_peer(ttyno, entry->label, static_cast<int>(sizeof entry->label));
    if (!let_in(entry, sockfd)) {
        kit_entry_free(entry);
        return -1;
    }
    if (!take_over(entry, sockfd, master_fd)) {
        // The bell may lie over the number already.
        const int client = entry->connection >= 0 ? entry->connection : sockfd;
        kit_admission_refuse(entry, client, "no resources for a session");
        kit_entry_free(entry);
        return -1;
    }
    entry->deadline_ms = kit_now_ms() + KIT_START_LIMIT_MS;
    kit_table_put(entry);
    if (is_unrelayed(entry) && !kit_unrelayed_add(entry)) {
        kit_admission_refuse(entry, entry->connection,
                             "no resources for a session");
        kit_unrelayed_remove(entry);
        forget(entry);
        return -1;
    }
    kit_warden_deadline(entry->deadline_ms);
    return 0;
}

static int on_init(int ttyno)
{
    return kit_entry_at(ttyno) != nullptr ? 0 : -1;
}

// One end of a pair on which nobody ever speaks, and that takes nothing; the
// other end stays open.
static int g_silent = -1;

bool kit_moments_prepare(void)
{
    int ends[2];

    if (g_silent < 0 && kit_pair_open(ends)) {
        shutdown(ends[0], SHUT_WR);
        g_silent = ends[0];
    }
    return g_silent >= 0 && kit_unrelayed_prepare();
}

static int on_bell(int ttyno)
{
    kit_entry *entry = kit_entry_at(ttyno);

    return entry != nullptr && kit_hear_bell(entry) ? 0 : -1;
}

static int on_channel(int ttyno)
{
    kit_entry *entry = kit_entry_at(ttyno);

    if (entry == nullptr) {
        return -1;
    }
    // At its end it would stay readable for ever.
    if (!kit_hear_channel(entry)) {
        dup3(g_silent, entry->channel, O_CLOEXEC);
    }
    return 0;
}

// What was said last is still under way when the end is noticed by another way
// than the bell. A keeper that was killed leaves its line and what still runs
// of its session to the warden.
static int on_kill(int ttyno)
{
    kit_entry *entry = kit_entry_at(ttyno);

    if (entry == nullptr) {
        return 0;
    }
    if (is_unrelayed(entry)) {
        kit_unrelayed_remove(entry);
    }
    kit_hear_bell(entry);
    kit_hear_rest(entry);
    const bool ran = entry->session.pid != 0;
    if (!entry->cleaned) {
        kit_warden_clean(entry);
    }
    if (ran) {
        char more[64];
        (void)snprintf(
            more, sizeof more, " seconds=%lld status=%d",
            static_cast<long long>(time(nullptr) - entry->session.begin),
            entry->status);
        kit_hear_note(entry, "session-end", more);
    }
    const kit_service *service = entry->session.service;
    if (ran && service->ended != nullptr) {
        service->ended(&entry->session, entry->status, service->context);
    }
    forget(entry);
    kit_warden_session_over();
    return 0;
}

static int on_shell(int ttyno, const char *ttydev)
{
    kit_entry *entry = kit_entry_at(ttyno);

    return entry != nullptr ? kit_keep(entry, ttydev) : -1;
}

static bool on_acl(const struct sockaddr *local, const struct sockaddr *peer)
{
    return kit_admission_permit(local, peer);
}

void kit_moments_set(vc_reg *registration)
{
    registration->alloc_func = on_alloc;
    registration->init_func = on_init;
    registration->read_func = on_bell;
    registration->write_func = on_channel;
    registration->kill_func = on_kill;
    registration->shell_func = on_shell;
    registration->acl_func = on_acl;
}
