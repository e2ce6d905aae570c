#include "kit/hearing.h"

#include <stdio.h>
#include <string.h>

#include "kit/audit.h"
#include "kit/bell.h"
#include "kit/clock.h"
#include "kit/keeping.h"
#include "kit/text.h"
#include "kit/warden.h"

// From the hang-up to the end: the program has its time, what it left in its
// session has it too, and then the line is cleaned.
constexpr int64_t CLEANING_MS = 5000;
constexpr int64_t HANGUPS = 3;
// Then the other sessions have their turn.
constexpr int MOST_MESSAGES = 64;
// More than a channel holds: what a function has left behind may still send.
constexpr int MOST_LAST_MESSAGES = 4096;

void kit_hear_note(const kit_entry *entry, const char *event, const char *more)
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
    const int64_t deadline = kit_now_ms() + KIT_START_LIMIT_MS;

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
    kit_hear_note(entry, "session-begin", "");
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

bool kit_hear_bell(kit_entry *entry)
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
    kit_hear_note(entry, success ? "login" : "login-failed", "");
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

static bool hear_channel(kit_entry *entry, int most)
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

bool kit_hear_channel(kit_entry *entry)
{
    return hear_channel(entry, MOST_MESSAGES);
}

void kit_hear_rest(kit_entry *entry)
{
    hear_channel(entry, MOST_LAST_MESSAGES);
}
