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
#include "kit/audit.h"
#include "kit/bell.h"
#include "kit/clock.h"
#include "kit/keeper.h"
#include "kit/keeping.h"
#include "kit/text.h"
#include "kit/unrelayed.h"
#include "kit/warden.h"

constexpr size_t REASON_SIZE = 128;
// A keeper that has not spoken by then hangs on a lock of the line; one that
// has but starts no program, on one of the machine's: who a user is may be
// asked of another machine, or of a lock that a thread held when the keeper was
// forked.
constexpr int64_t START_LIMIT_MS = 10000;
// From the hang-up to the end: the program has its time, what it left in its
// session has it too, and then the line is cleaned.
constexpr int64_t CLEANING_MS = 5000;
constexpr int64_t HANGUPS = 3;
// Above the standard streams, whatever of them the daemon has closed.
constexpr int LOWEST_NUMBER = 3;
// Then the other sessions have their turn.
constexpr int MOST_MESSAGES = 64;
// More than a channel holds: what a function has left behind may still send.
constexpr int MOST_LAST_MESSAGES = 4096;

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
    entry->deadline_ms = kit_now_ms() + START_LIMIT_MS;
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

static void log_event(const kit_entry *entry, const char *event,
                      const char *more)
{
    char name[32];
    char name_word[96];
    char peer_word[3 * KIT_PEER_SIZE];
    char user_word[3 * KIT_USER_SIZE];

    kit_audit(
        "%s line=%d id=%s service=%s protocol=%u peer=%s user=%s%s", event,
        entry->session.line, entry->id,
        kit_word(name_word, sizeof name_word,
                 kit_service_name(entry->session.service, name, sizeof name)),
        entry->session.service->protocol,
        kit_word(peer_word, sizeof peer_word, entry->peer),
        kit_word(user_word, sizeof user_word, entry->user), more);
}

static void on_running(kit_entry *entry, int keeper_pid)
{
    const int64_t deadline = kit_now_ms() + START_LIMIT_MS;

    kit_lock();
    entry->session.keeper_pid = keeper_pid;
    entry->deadline_ms = deadline;
    kit_unlock();
    kit_warden_deadline(deadline);
    kit_close(&entry->connection);
    kit_close(&entry->master);
    kit_close(&entry->keeper_bell);
    kit_close(&entry->program_channel);
}

static void on_terminal(kit_entry *entry, const bell_message *message)
{
    kit_lock();
    entry->program = message->number;
    (void)snprintf(entry->device, sizeof entry->device, "%.*s",
                   static_cast<int>(sizeof entry->device - 1), message->text);
    kit_unlock();
}

// The program runs: the session has begun.
static void on_program(kit_entry *entry)
{
    const kit_service *service = entry->session.service;

    kit_lock();
    entry->session.pid = entry->program;
    entry->deadline_ms = 0;
    kit_unlock();
    log_event(entry, "session-begin", "");
    if (service->began != nullptr) {
        service->began(&entry->session, service->context);
    }
}

static void on_ending(kit_entry *entry)
{
    const uint32_t hangup =
        kit_keeping_limit(entry->session.service->hangup_ms, KIT_HANGUP_MS);
    const int64_t deadline = kit_now_ms() + HANGUPS * hangup + CLEANING_MS;

    kit_lock();
    entry->deadline_ms = 0;
    entry->end_by_ms = deadline;
    kit_unlock();
    kit_warden_deadline(deadline);
}

// A keeper that is not trusted with the line says that it is clean in vain.
static void on_ended(kit_entry *entry, const bell_message *message)
{
    const bool clean = strcmp(message->text, BELL_CLEAN) == 0;

    entry->status = message->number;
    entry->cleaned = clean && entry->session.service->confine == nullptr;
    entry->empty = clean || strcmp(message->text, BELL_EMPTY) == 0;
}

static void take_message(kit_entry *entry, const bell_message *message)
{
    if (message->kind <= entry->heard) {
        return;
    }
    entry->heard = message->kind;
    switch (message->kind) {
    case BELL_RUNS:
        on_running(entry, message->number);
        break;
    case BELL_TERMINAL:
        on_terminal(entry, message);
        break;
    case BELL_USER:
        kit_lock();
        (void)snprintf(entry->user, sizeof entry->user, "%.*s",
                       static_cast<int>(sizeof entry->user - 1), message->text);
        kit_unlock();
        break;
    case BELL_PROGRAM:
        on_program(entry);
        break;
    case BELL_ENDING:
        on_ending(entry);
        break;
    case BELL_ENDED:
        on_ended(entry, message);
        break;
    default:
        break;
    }
}

bool kit_moments_bell(kit_entry *entry)
{
    bell_message message;
    int heard = 1;

    for (int i = 0; i < MOST_MESSAGES && heard > 0; i++) {
        heard = kit_bell_hear(entry->bell, &message);
        if (heard > 0) {
            take_message(entry, &message);
        }
    }
    return heard >= 0;
}

static void on_login(kit_entry *entry, const char *user, bool success)
{
    kit_lock();
    (void)snprintf(entry->user, sizeof entry->user, "%s", user);
    entry->session.logged_in = success ? 1 : 0;
    kit_unlock();
    log_event(entry, success ? "login" : "login-failed", "");
}

static void take_channel(kit_entry *entry, uint8_t kind, char *data,
                         size_t length)
{
    const kit_service *service = entry->session.service;
    char user[KIT_USER_SIZE];

    switch (kind) {
    case CHANNEL_DATA:
        if (service->received != nullptr) {
            service->received(&entry->session, data, length, service->context);
        }
        break;
    case CHANNEL_LOGIN:
    case CHANNEL_REFUSED:
        data[length] = '\0';
        on_login(entry, kit_plain(user, sizeof user, data),
                 kind == CHANNEL_LOGIN);
        break;
    default:
        break;
    }
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

static bool listen_to_program(kit_entry *entry, int most)
{
    char data[CHANNEL_MOST + 1];
    uint8_t kind = 0;
    ssize_t got = 0;

    for (int i = 0; i < most; i++) {
        got = kit_channel_take(entry->channel, &kind, data, CHANNEL_MOST);
        if (got < 0) {
            break;
        }
        take_channel(entry, kind, data, static_cast<size_t>(got));
    }
    return got != -2;
}

bool kit_moments_channel(kit_entry *entry)
{
    return listen_to_program(entry, MOST_MESSAGES);
}

static int on_bell(int ttyno)
{
    kit_entry *entry = kit_entry_at(ttyno);

    return entry != nullptr && kit_moments_bell(entry) ? 0 : -1;
}

static int on_channel(int ttyno)
{
    kit_entry *entry = kit_entry_at(ttyno);

    if (entry == nullptr) {
        return -1;
    }
    // At its end it would stay readable for ever.
    if (!kit_moments_channel(entry)) {
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
    kit_moments_bell(entry);
    listen_to_program(entry, MOST_LAST_MESSAGES);
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
        log_event(entry, "session-end", more);
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
