#include "kit/command.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <ttyline/vc.h>

#include "kit/error.h"
#include "kit/table.h"
#include "kit/text.h"

constexpr int MOST_WORDS = 32;
constexpr int HIGHEST_PORT = 65535;
constexpr int HIGHEST_PROTOCOL = 11;
constexpr int HIGHEST_TOS = 255;
constexpr size_t REASON_SIZE = 128;

struct request {
    const kit_daemon *daemon;
    kit_report *report;
    int count; // of the words after the command's name
    char **words;
};

struct command {
    const char *name;
    const char *arguments;
    int least;
    int most;
    const char *purpose;
    void (*run)(const request *asked);
};

static time_t g_started;

static void refuse(const request *asked, const char *reason)
{
    kit_report_error(asked->report, reason);
}

static void finish(const request *asked)
{
    kit_report_end(asked->report);
}

static int count_sessions(const kit_node *node)
{
    int count = 0;

    for (int line = kit_table_next(0); line < TTY_LINES;
         line = kit_table_next(line + 1)) {
        count += node == nullptr || kit_entry_at(line)->node == node;
    }
    return count;
}

static void tell_status(const request *asked)
{
    const kit_daemon *daemon = asked->daemon;
    int services = 0;

    kit_report_list(asked->report, "status");
    kit_report_row(asked->report);
    kit_report_text(asked->report, "daemon",
                    daemon->name != nullptr ? daemon->name
                                            : program_invocation_short_name);
    kit_report_text(asked->report, "version",
                    daemon->version != nullptr ? daemon->version : "");
    kit_report_number(asked->report, "pid", getpid());
    kit_report_number(asked->report, "begin", g_started);
    kit_lock();
    for (const kit_node *node = kit_first_node(); node != nullptr;
         node = node->next) {
        services++;
    }
    const int sessions = count_sessions(nullptr);
    kit_unlock();
    kit_report_number(asked->report, "services", services);
    kit_report_number(asked->report, "sessions", sessions);
    kit_report_text(asked->report, "allocation",
                    __atomic_load_n(&g_vc_tty_socket, __ATOMIC_RELAXED) >= 0
                        ? "connected"
                        : "away");
    finish(asked);
}

static void report_session(kit_report *report, const kit_entry *entry)
{
    const kit_session *session = &entry->session;
    char name[32];

    kit_report_row(report);
    kit_report_number(report, "line", session->line);
    kit_report_text(report, "id", session->id);
    kit_report_text(report, "service",
                    kit_service_name(session->service, name, sizeof name));
    kit_report_number(report, "protocol", session->service->protocol);
    kit_report_text(report, "user", session->user);
    kit_report_text(report, "login", session->logged_in != 0 ? "yes" : "no");
    kit_report_text(report, "peer", session->peer);
    kit_report_text(report, "address", entry->address);
    kit_report_text(report, "device", session->device);
    kit_report_number(report, "begin", session->begin);
    kit_report_number(report, "keeper", session->keeper_pid);
    kit_report_number(report, "pid", session->pid);
}

static void tell_sessions(const request *asked)
{
    kit_report_list(asked->report, "sessions");
    kit_lock();
    for (int line = kit_table_next(0); line < TTY_LINES;
         line = kit_table_next(line + 1)) {
        report_session(asked->report, kit_entry_at(line));
    }
    kit_unlock();
    finish(asked);
}

static const char *families_of(const kit_service *service)
{
    if (service->path != nullptr) {
        return "unix";
    }
    switch (service->families & (KIT_IPV4 | KIT_IPV6)) {
    case KIT_IPV4:
        return "ipv4";
    case KIT_IPV6:
        return "ipv6";
    default:
        return "ipv4,ipv6";
    }
}

static void tell_services(const request *asked)
{
    kit_report *report = asked->report;
    char name[32];

    kit_report_list(report, "services");
    kit_lock();
    for (const kit_node *node = kit_first_node(); node != nullptr;
         node = node->next) {
        const kit_service *service = node->service;
        kit_report_row(report);
        kit_report_text(report, "service",
                        kit_service_name(service, name, sizeof name));
        kit_report_number(report, "protocol", service->protocol);
        kit_report_text(report, "family", families_of(service));
        if (service->path != nullptr) {
            kit_report_text(report, "path", service->path);
        } else {
            kit_report_number(report, "port", node->port);
        }
        kit_report_text(report, "state", node->stopped ? "stopped" : "open");
        kit_report_number(report, "sessions", count_sessions(node));
    }
    kit_unlock();
    finish(asked);
}

// A protocol that has a service here.
static bool take_protocol(const request *asked, int *protocol)
{
    bool known = false;

    if (kit_number(asked->words[0], 0, HIGHEST_PROTOCOL, protocol)) {
        kit_lock();
        for (const kit_node *node = kit_first_node(); node != nullptr;
             node = node->next) {
            known = known ||
                    node->service->protocol == static_cast<uint32_t>(*protocol);
        }
        kit_unlock();
    }
    if (!known) {
        refuse(asked, "no service of this protocol");
    }
    return known;
}

// Opening alone leaves a service dead that lost its inetd while it was stopped:
// it is stopped once more, which one that listens is spared.
static void open_protocol(const request *asked)
{
    int protocol;

    if (!take_protocol(asked, &protocol)) {
        return;
    }
    if (kit_service_stopped(static_cast<uint32_t>(protocol), false)) {
        vc_deal_service_listen(false, protocol);
    }
    vc_deal_service_listen(true, protocol);
    finish(asked);
}

static void stop_protocol(const request *asked)
{
    int protocol;

    if (take_protocol(asked, &protocol)) {
        vc_deal_service_listen(false, protocol);
        kit_service_stopped(static_cast<uint32_t>(protocol), true);
        finish(asked);
    }
}

// Port 0 is that of every unix path, which has nowhere to move. The loop learns
// the new port with its permit, so it is noted before.
static void move_port(const request *asked)
{
    int protocol;
    int old_port;
    int new_port;

    if (!take_protocol(asked, &protocol)) {
        return;
    }
    if (!kit_number(asked->words[1], 1, HIGHEST_PORT, &old_port) ||
        !kit_number(asked->words[2], 1, HIGHEST_PORT, &new_port)) {
        refuse(asked, "a port is 1 to 65535");
        return;
    }
    const uint32_t number = static_cast<uint32_t>(protocol);
    kit_service_moved(number, old_port, new_port);
    if (vc_service_update_port(protocol, old_port, new_port) != 0) {
        // Back again.
        // NOLINTNEXTLINE(readability-suspicious-call-argument)
        kit_service_moved(number, new_port, old_port);
        refuse(asked, "the line-allocation daemon could not be told");
        return;
    }
    finish(asked);
}

static void set_tos(const request *asked)
{
    int protocol;
    int family;
    int value;

    if (!take_protocol(asked, &protocol)) {
        return;
    }
    if (!kit_number(asked->words[1], AF_INET, AF_INET6, &family) ||
        (family != AF_INET && family != AF_INET6)) {
        refuse(asked, "a family is 2 (IPv4) or 10 (IPv6)");
        return;
    }
    if (!kit_number(asked->words[2], 0, HIGHEST_TOS, &value)) {
        refuse(asked, "a value is 0 to 255");
        return;
    }
    errno = 0;
    if (vc_tos_set(protocol, family, value) == 0) {
        finish(asked);
    } else if (errno == 0) {
        refuse(asked, "no service of this protocol and family");
    } else {
        refuse(asked, errno == EBADF ? "the service does not listen"
                                     : strerror(errno));
    }
}

// The reason is what remains of the line, as its words.
static void kick(const request *asked)
{
    char reason[REASON_SIZE] = "";
    int line;

    for (int i = 1; i < asked->count; i++) {
        const size_t used = strlen(reason);
        (void)snprintf(reason + used, sizeof reason - used, "%s%s",
                       i > 1 ? " " : "", asked->words[i]);
    }
    if (!kit_number(asked->words[0], 0, TTY_LINES - 1, &line)) {
        refuse(asked, "a line is 0 to 1585");
    } else if (kit_end(line,
                       reason[0] != '\0' ? reason : "ended by the operator") !=
               0) {
        refuse(asked, kit_error());
    } else {
        finish(asked);
    }
}

static void reload(const request *asked)
{
    const kit_daemon *daemon = asked->daemon;
    char reason[REASON_SIZE] = "the daemon could not reload";

    if (daemon->reload == nullptr) {
        refuse(asked, "there is nothing to reload");
    } else if (daemon->reload(reason, sizeof reason, daemon->context) != 0) {
        refuse(asked, reason);
    } else {
        finish(asked);
    }
}

static void help(const request *asked);

static const command COMMANDS[] = {
    {"status", "", 0, 0, "the daemon", tell_status},
    {"sessions", "", 0, 0, "sessions that run", tell_sessions},
    {"services", "", 0, 0, "what is offered where", tell_services},
    {"kick", "LINE [REASON...]", 1, MOST_WORDS, "end a session", kick},
    {"open", "PROTOCOL", 1, 1, "let a protocol's services listen",
     open_protocol},
    {"stop", "PROTOCOL", 1, 1, "close their listeners", stop_protocol},
    {"port", "PROTOCOL OLD NEW", 3, 3, "move them to another port", move_port},
    {"tos", "PROTOCOL FAMILY VALUE", 3, 3,
     "TOS (family 2) or traffic class (10) of the listener", set_tos},
    {"reload", "", 0, 0, "read the configuration again", reload},
    {"help", "", 0, 0, "print this", help},
};

static void help(const request *asked)
{
    char line[128];

    kit_report_list(asked->report, "help");
    for (const command &known : COMMANDS) {
        (void)snprintf(line, sizeof line, "%s%s%s  %s", known.name,
                       known.arguments[0] != '\0' ? " " : "", known.arguments,
                       known.purpose);
        kit_report_line(asked->report, line);
    }
    finish(asked);
}

static int split(char *line, char **words)
{
    int count = 0;
    char *rest = nullptr;

    for (char *word = strtok_r(line, " \t\r", &rest);
         word != nullptr && count < MOST_WORDS;
         word = strtok_r(nullptr, " \t\r", &rest)) {
        words[count++] = word;
    }
    return count;
}

static void explain(const command *known, const request *asked)
{
    char usage[128];

    (void)snprintf(usage, sizeof usage, "usage: %s%s%s", known->name,
                   known->arguments[0] != '\0' ? " " : "", known->arguments);
    refuse(asked, usage);
}

static void run(const command *known, const request *asked)
{
    if (asked->count < known->least || asked->count > known->most) {
        explain(known, asked);
    } else {
        known->run(asked);
    }
}

void kit_command_begin(void)
{
    g_started = time(nullptr);
}

void kit_command_run(const kit_daemon *daemon, char *line, kit_report *report)
{
    char *words[MOST_WORDS];

    int count = split(line, words);
    const bool json = count > 0 && strcmp(words[count - 1], "--json") == 0;
    count -= json ? 1 : 0;
    kit_report_begin(report, json);
    const request asked = {daemon, report, count - 1, words + 1};
    for (const command &known : COMMANDS) {
        if (count > 0 && strcmp(words[0], known.name) == 0) {
            run(&known, &asked);
            return;
        }
    }
    kit_report_error(report, "unknown command, try help");
}
