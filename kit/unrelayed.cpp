// An entry is heard under a lock of its own, so that the loop, which has seen
// the keeper's end, does not free it meanwhile. It is held for as long as a few
// reads take that do not wait.
#include "kit/unrelayed.h"

#include <pthread.h>
#include <sys/epoll.h>

#include <ttyline/vc.h>

#include "kit/hearing.h"

constexpr int MOST_EVENTS = 32;

static int g_events = -1;
static pthread_mutex_t g_hearing = PTHREAD_MUTEX_INITIALIZER;
// Whose events still mean something; one of them may be under way already when
// its session ends.
static bool g_heard[TTY_LINES];

bool kit_unrelayed(uint32_t protocol)
{
    switch (protocol) {
    case VC_PROTOCOL_TIPC:
    case VC_PROTOCOL_TELNET:
    case VC_PROTOCOL_SSH:
    case VC_PROTOCOL_TIPC_ALT:
    case VC_PROTOCOL_SSH_ALT:
        return true;
    default:
        return false;
    }
}

bool kit_unrelayed_prepare(void)
{
    if (g_events < 0) {
        g_events = epoll_create1(EPOLL_CLOEXEC);
    }
    return g_events >= 0;
}

int kit_unrelayed_descriptor(void)
{
    return g_events;
}

// An event has the line and the number that it is about.
static bool watch(int line, int fd)
{
    struct epoll_event event = {};

    event.events = EPOLLIN;
    event.data.u64 =
        static_cast<uint64_t>(line) << 32 | static_cast<uint32_t>(fd);
    return epoll_ctl(g_events, EPOLL_CTL_ADD, fd, &event) == 0;
}

static void unwatch(int fd)
{
    epoll_ctl(g_events, EPOLL_CTL_DEL, fd, nullptr);
}

bool kit_unrelayed_add(const kit_entry *entry)
{
    const int line = entry->session.line;

    pthread_mutex_lock(&g_hearing);
    g_heard[line] = watch(line, entry->bell) && watch(line, entry->channel);
    const bool added = g_heard[line];
    pthread_mutex_unlock(&g_hearing);
    return added;
}

void kit_unrelayed_remove(const kit_entry *entry)
{
    pthread_mutex_lock(&g_hearing);
    g_heard[entry->session.line] = false;
    unwatch(entry->bell);
    unwatch(entry->channel);
    pthread_mutex_unlock(&g_hearing);
}

// At its end a descriptor would stay readable for ever. That of the bell is
// followed by the end of the keeper, which the loop sees.
static void hear(int line, int fd)
{
    pthread_mutex_lock(&g_hearing);
    if (g_heard[line]) {
        kit_lock();
        kit_entry *entry = kit_entry_at(line);
        kit_unlock();
        const bool more = entry != nullptr && fd == entry->bell
                              ? kit_hear_bell(entry)
                              : entry != nullptr && kit_hear_channel(entry);
        if (!more) {
            unwatch(fd);
        }
    }
    pthread_mutex_unlock(&g_hearing);
}

void kit_unrelayed_hear(void)
{
    struct epoll_event events[MOST_EVENTS];
    const int count = epoll_wait(g_events, events, MOST_EVENTS, 0);

    for (int i = 0; i < count; i++) {
        hear(static_cast<int>(events[i].data.u64 >> 32),
             static_cast<int>(events[i].data.u64 & 0xffffffffU));
    }
}
