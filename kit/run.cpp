// Offering services, and giving the thread to the session service.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ttyline/kit.h>
#include <ttyline/vc.h>

#include "kit/audit.h"
#include "kit/bell.h"
#include "kit/clock.h"
#include "kit/error.h"
#include "kit/identity.h"
#include "kit/moments.h"
#include "kit/paths.h"
#include "kit/place.h"
#include "kit/program.h"
#include "kit/service.h"
#include "kit/table.h"
#include "kit/unrelayed.h"
#include "kit/warden.h"

constexpr int HIGHEST_PORT = 65535;
constexpr uint32_t HIGHEST_PROTOCOL = 11;
constexpr mode_t USUAL_PATH_MODE = 0600;
// No more than the session service looks at; two a session.
constexpr rlim_t WANTED_DESCRIPTORS = 16384;
// A keeper that does not begin to end its session by then hangs, or somebody
// has stopped it.
constexpr int64_t ANSWER_LIMIT_MS = 3000;

static bool g_running; // guarded by the lock
static pthread_mutex_t g_offering = PTHREAD_MUTEX_INITIALIZER;

// The session service takes a path of any length and listens on what fits.
static int check_endpoint(const kit_service *service)
{
    if (service->path != nullptr) {
        const size_t length = strlen(service->path);
        return service->port == 0 && length > 0 && length < VC_PATH_SIZE
                   ? 0
                   : kit_fail("'%s' is no path of 1 to 63 characters, or has a "
                              "port besides",
                              service->path);
    }
    return service->port >= 1 && service->port <= HIGHEST_PORT
               ? 0
               : kit_fail("%d is no port", service->port);
}

// The loop, on whose thread they would be called, hears too late of these.
static int check_callbacks(const kit_service *service)
{
    if (kit_unrelayed(service->protocol) &&
        (service->began != nullptr || service->received != nullptr)) {
        return kit_fail("protocol %u has no callbacks began and received",
                        service->protocol);
    }
    return 0;
}

static int check_service(const kit_service *service)
{
    if (service->size != sizeof *service) {
        return kit_fail("a service of %zu bytes is of another version",
                        service->size);
    }
    if (service->codec != nullptr &&
        service->codec->size != sizeof *service->codec) {
        return kit_fail("a codec of %zu bytes is of another version",
                        service->codec->size);
    }
    if (service->protocol > HIGHEST_PROTOCOL) {
        return kit_fail("%u is no protocol", service->protocol);
    }
    if ((service->program == nullptr) == (service->function == nullptr)) {
        return kit_fail("a service runs a program or a function");
    }
    if (service->program != nullptr && service->program[0] == nullptr) {
        return kit_fail("the program has no name");
    }
    return check_callbacks(service) == 0 ? check_endpoint(service) : -1;
}

static int register_family(const kit_node *node, int family)
{
    vc_reg registration = {};

    registration.socket_type = family;
    registration.protocol = node->service->protocol;
    registration.listen_port = node->service->port;
    registration.listen_path = node->service->path;
    kit_moments_set(&registration);
    if (vc_service_reg(&registration) == 0) {
        return 0;
    }
    return node->service->path != nullptr
               ? kit_fail("path %s cannot be registered", node->service->path)
               : kit_fail("port %d cannot be registered", node->service->port);
}

// All of it or nothing. Of what has been registered, its IPv4 port, it is the
// only service: one on the same port of the other family would not have been
// taken beside it.
static int register_node(const kit_node *node)
{
    const uint32_t families = kit_families(node->service);

    if (kit_place_free(node->service) != 0) {
        return -1;
    }
    if (node->service->path != nullptr) {
        return register_family(node, AF_UNIX);
    }
    if ((families & KIT_IPV4) != 0 && register_family(node, AF_INET) != 0) {
        return -1;
    }
    if ((families & KIT_IPV6) != 0 && register_family(node, AF_INET6) != 0) {
        if ((families & KIT_IPV4) != 0) {
            vc_service_del(node->service->port);
        }
        return -1;
    }
    return 0;
}

static kit_node *make_node(const kit_service *service)
{
    kit_node *node = static_cast<kit_node *>(calloc(1, sizeof *node));

    if (node == nullptr) {
        kit_fail("out of memory");
        return nullptr;
    }
    node->service = service;
    node->port = service->port;
    if (service->admission != nullptr) {
        node->rules = kit_rules_read(service->admission);
        if (node->rules == nullptr) {
            free(node);
            return nullptr;
        }
    }
    return node;
}

static void free_node(kit_node *node)
{
    kit_rules_free(node->rules);
    free(node);
}

// Known to the loop before its node is there: who came in that moment would be
// refused. A node that sessions may have met could not be freed.
static int offer_now(kit_node *node)
{
    if (register_node(node) != 0) {
        return -1;
    }
    node->registered = true;
    kit_lock();
    kit_node_add(node);
    kit_unlock();
    kit_paths_watch(node->service);
    // The loop would announce it at its next turn, within a minute: this wakes
    // it.
    vc_deal_service_listen(true, static_cast<int>(node->service->protocol));
    return 0;
}

static int offer_node(kit_node *node)
{
    kit_lock();
    const bool taken = kit_node_taken(node);
    const bool running = g_running;
    if (!taken && !running) {
        kit_node_add(node);
    }
    kit_unlock();
    if (taken) {
        kit_fail("a service is offered there already");
        return -1;
    }
    return running ? offer_now(node) : 0;
}

int kit_offer(const kit_service *service)
{
    if (check_service(service) != 0) {
        return -1;
    }
    kit_node *node = make_node(service);
    if (node == nullptr) {
        return -1;
    }
    // One after the other: two at one place would both find it free.
    pthread_mutex_lock(&g_offering);
    const int result = offer_node(node);
    pthread_mutex_unlock(&g_offering);
    if (result != 0) {
        free_node(node);
    }
    return result;
}

int kit_admit(const kit_service *service, const kit_admission *admission)
{
    kit_rules *rules = nullptr;

    if (admission != nullptr) {
        rules = kit_rules_read(admission);
        if (rules == nullptr) {
            return -1;
        }
    }
    kit_lock();
    kit_node *node = kit_node_of(service);
    if (node != nullptr) {
        kit_rules *before = node->rules;
        node->rules = rules;
        rules = before;
    }
    kit_unlock();
    kit_rules_free(rules);
    return node != nullptr ? 0 : kit_fail("the service was not offered");
}

static void raise_descriptor_limit(void)
{
    struct rlimit limit;

    kit_program_keep_limits();
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 ||
        limit.rlim_cur >= WANTED_DESCRIPTORS) {
        return;
    }
    limit.rlim_cur = limit.rlim_max < WANTED_DESCRIPTORS ? limit.rlim_max
                                                         : WANTED_DESCRIPTORS;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// The next node that the loop does not know yet, noted as one that it does.
// With none left the daemon runs: what is offered then registers itself.
static const kit_node *next_unregistered(void)
{
    kit_lock();
    kit_node *node = kit_first_node();
    while (node != nullptr && node->registered) {
        node = node->next;
    }
    if (node != nullptr) {
        node->registered = true;
    } else {
        g_running = true;
    }
    kit_unlock();
    return node;
}

// Without the lock: the session service's own comes before it elsewhere.
static int register_all(void)
{
    const kit_node *node;

    while ((node = next_unregistered()) != nullptr) {
        if (register_node(node) != 0) {
            return -1;
        }
    }
    return 0;
}

// A descriptor of the kit's under one of their numbers would get what the
// daemon prints, and its keepers would lay the terminal over it.
static bool fill_standard_streams(void)
{
    int fd;

    do {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        close(fd);
    }
    return fd >= 0;
}

int kit_run(const kit_daemon *daemon)
{
    if (daemon->size != sizeof *daemon) {
        return kit_fail("a daemon of %zu bytes is of another version",
                        daemon->size);
    }
    if (kit_first_node() == nullptr) {
        return kit_fail("no service was offered");
    }
    if (kit_runtime_check() != 0) {
        return -1;
    }
    if (!fill_standard_streams() || !kit_moments_prepare()) {
        return kit_fail("no descriptor: %s", strerror(errno));
    }
    kit_audit_open(daemon->name != nullptr ? daemon->name
                                           : program_invocation_short_name);
    raise_descriptor_limit();
    kit_identity_prepare();
    kit_paths_begin(daemon->path_mode != 0 ? daemon->path_mode
                                           : USUAL_PATH_MODE);
    // Registered first: an operator who asks at once finds the services there.
    if (register_all() != 0 || kit_warden_start(daemon) != 0) {
        return -1;
    }
    kit_audit("daemon-begin");
    vc_service_start();
    return kit_fail("the session service did not start");
}

int kit_post(int32_t line, const void *data, size_t length)
{
    const kit_entry *entry = kit_entry_at(line);

    if (entry == nullptr) {
        errno = ESRCH;
        return kit_fail("there is no session on line %d", line);
    }
    if (length == 0 || length > CHANNEL_MOST) {
        errno = EMSGSIZE;
        return kit_fail("a message has 1 to %zu bytes", CHANNEL_MOST);
    }
    return kit_channel_put(entry->channel, CHANNEL_DATA, data, length, false)
               ? 0
               : kit_fail("the session takes no message: %s", strerror(errno));
}

void kit_each_session(void (*visit)(const kit_session *session, void *argument),
                      void *argument)
{
    for (int line = kit_table_next(0); line < TTY_LINES;
         line = kit_table_next(line + 1)) {
        visit(&kit_entry_at(line)->session, argument);
    }
}

// Once: a keeper that is asked again has no more time for it.
int kit_end(int32_t line, const char *reason)
{
    const int64_t deadline = kit_now_ms() + ANSWER_LIMIT_MS;

    kit_lock();
    kit_entry *entry = kit_entry_at(line);
    if (entry != nullptr) {
        kit_bell_say(entry->bell, BELL_END, 0, reason);
        entry->end_by_ms = entry->end_by_ms != 0 ? entry->end_by_ms : deadline;
    }
    kit_unlock();
    if (entry == nullptr) {
        return kit_fail("there is no session on line %d", line);
    }
    kit_warden_deadline(deadline);
    return 0;
}
