// Nothing here waits for a client: each has a line that is being read or an
// answer that is being written, and some time to get on with it.
#include "kit/control.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "kit/clock.h"
#include "kit/command.h"
#include "kit/error.h"
#include "kit/place.h"

constexpr int BACKLOG = 16;
constexpr size_t LINE_SIZE = 512;
// From one step of a client to the next.
constexpr int64_t PATIENCE_MS = 10000;
// What a client has for one question when another one wants its place.
constexpr int64_t LEAST_MS = 1000;
constexpr int64_t NO_PLACE_PAUSE_MS = 100;
constexpr mode_t SOCKET_MODE = 0600;

// The analyser takes the copy of a whole record for one onto itself.
// NOLINTNEXTLINE(clang-analyzer-alpha.unix.cstring.BufferOverlap)
struct control_client {
    int fd; // -1: none
    int64_t give_up_at;
    int64_t since; // it came, or has taken its last answer
    char line[LINE_SIZE];
    size_t used;
    bool skipping; // inside a line that was too long
    kit_report report;
    size_t sent;
};

struct control_state {
    const kit_daemon *daemon;
    int listener = -1;
    dev_t device;
    ino_t inode;
    int64_t accept_at; // after a failure
    control_client clients[KIT_CONTROL_CLIENTS];
    // What each polled descriptor is: a client's place, -1 the listener.
    int places[KIT_CONTROL_DESCRIPTORS];
};
static control_state g_control;

static bool make_address(const char *path, struct sockaddr_un *address)
{
    if (strlen(path) == 0 || strlen(path) >= sizeof address->sun_path) {
        kit_fail("'%s' is empty or too long for a socket's path", path);
        return false;
    }
    *address = {};
    address->sun_family = AF_UNIX;
    (void)snprintf(address->sun_path, sizeof address->sun_path, "%s", path);
    return true;
}

static int make_socket(void)
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

static bool remove_stale(const struct sockaddr_un *address)
{
    const char *path = address->sun_path;
    struct stat status;

    if (lstat(path, &status) != 0) {
        return errno == ENOENT ||
               kit_fail("%s: %s", path, strerror(errno)) == 0;
    }
    if (!S_ISSOCK(status.st_mode)) {
        return kit_fail("%s is there and is no socket", path) == 0;
    }
    if (kit_place_path_taken(path)) {
        return kit_fail("%s is in use", path) == 0;
    }
    return unlink(path) == 0 || kit_fail("%s: %s", path, strerror(errno)) == 0;
}

// The mode is set before anybody can connect: listen() comes last.
static bool bind_and_listen(int fd, const struct sockaddr_un *address)
{
    const char *path = address->sun_path;

    if (bind(fd, reinterpret_cast<const struct sockaddr *>(address),
             sizeof *address) != 0) {
        kit_fail("%s: %s", path, strerror(errno));
        return false;
    }
    if (chmod(path, SOCKET_MODE) != 0 || listen(fd, BACKLOG) != 0) {
        kit_fail("%s: %s", path, strerror(errno));
        unlink(path);
        return false;
    }
    return true;
}

int kit_control_open(const kit_daemon *daemon)
{
    struct sockaddr_un address;
    struct stat status;

    g_control.daemon = daemon;
    kit_command_begin();
    for (control_client &client : g_control.clients) {
        client.fd = -1;
    }
    if (daemon->control == nullptr) {
        return 0;
    }
    if (!make_address(daemon->control, &address) || !remove_stale(&address)) {
        return -1;
    }
    const int fd = make_socket();
    if (fd < 0) {
        return kit_fail("no socket: %s", strerror(errno));
    }
    if (!bind_and_listen(fd, &address)) {
        close(fd);
        return -1;
    }
    if (lstat(daemon->control, &status) == 0) {
        g_control.device = status.st_dev;
        g_control.inode = status.st_ino;
    }
    g_control.listener = fd;
    return 0;
}

void kit_control_end(void)
{
    struct stat status;

    if (g_control.listener >= 0 &&
        lstat(g_control.daemon->control, &status) == 0 &&
        status.st_dev == g_control.device && status.st_ino == g_control.inode) {
        unlink(g_control.daemon->control);
    }
    if (g_control.listener >= 0) {
        close(g_control.listener);
        g_control.listener = -1;
    }
}

// A free one, or that of the client who has had it longest; null when nobody
// has had his time.
static control_client *place_for_another(void)
{
    control_client *oldest = nullptr;

    for (control_client &client : g_control.clients) {
        if (client.fd < 0) {
            return &client;
        }
        if (oldest == nullptr || client.since < oldest->since) {
            oldest = &client;
        }
    }
    return kit_now_ms() - oldest->since >= LEAST_MS ? oldest : nullptr;
}

static bool answering(const control_client *client)
{
    return client->sent < client->report.length;
}

size_t kit_control_watch(struct pollfd *watched, int64_t *next)
{
    size_t count = 0;

    for (size_t i = 0; i < KIT_CONTROL_CLIENTS; i++) {
        const control_client *client = &g_control.clients[i];
        if (client->fd >= 0) {
            const int events = answering(client) ? POLLOUT : POLLIN;
            watched[count] = {client->fd, static_cast<short>(events), 0};
            g_control.places[count++] = static_cast<int>(i);
            *next = kit_earlier(*next, client->give_up_at);
        }
    }
    if (g_control.listener < 0) {
        return count;
    }
    if (kit_now_ms() < g_control.accept_at) {
        *next = kit_earlier(*next, g_control.accept_at);
        return count;
    }
    watched[count] = {g_control.listener, POLLIN, 0};
    g_control.places[count++] = -1;
    return count;
}

static void give_time(control_client *client)
{
    client->give_up_at = kit_now_ms() + PATIENCE_MS;
}

static void drop(control_client *client)
{
    kit_report_free(&client->report);
    close(client->fd);
    client->fd = -1;
}

// Without a place or a descriptor a client stays in the queue, and ready.
static void take_client(void)
{
    control_client *client = place_for_another();
    const int fd = client == nullptr
                       ? -1
                       : accept4(g_control.listener, nullptr, nullptr,
                                 SOCK_CLOEXEC | SOCK_NONBLOCK);

    if (fd < 0) {
        g_control.accept_at = kit_now_ms() + NO_PLACE_PAUSE_MS;
        return;
    }
    if (client->fd >= 0) {
        drop(client);
    }
    *client = {};
    client->fd = fd;
    client->since = kit_now_ms();
    give_time(client);
}

// Returns false when the client has gone.
static bool send_answer(control_client *client)
{
    while (answering(client)) {
        const ssize_t sent = send(
            client->fd, client->report.text + client->sent,
            client->report.length - client->sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        client->sent += static_cast<size_t>(sent);
        give_time(client);
    }
    if (client->report.length > 0) {
        client->since = kit_now_ms();
    }
    kit_report_free(&client->report);
    client->sent = 0;
    return true;
}

// Takes the first line, if there is a whole one.
static bool take_line(control_client *client, char (&line)[LINE_SIZE])
{
    const char *end =
        static_cast<char *>(memchr(client->line, '\n', client->used));

    if (end == nullptr) {
        return false;
    }
    const size_t length = static_cast<size_t>(end - client->line);
    for (size_t i = 0; i < length; i++) {
        // A zero byte ends no word: what stands behind it was meant too.
        line[i] = client->line[i] != '\0' ? client->line[i] : '?';
    }
    line[length] = '\0';
    client->used -= length + 1;
    memmove(client->line, end + 1, client->used);
    return true;
}

// The rest of a line that was too long is no line.
static void obey_line(control_client *client)
{
    char line[LINE_SIZE];

    while (take_line(client, line)) {
        if (!client->skipping) {
            kit_command_run(g_control.daemon, line, &client->report);
            return;
        }
        client->skipping = false;
    }
}

// Told once; the rest of the line is thrown away as it comes.
static void refuse_long_line(control_client *client)
{
    client->used = 0;
    if (!client->skipping) {
        client->skipping = true;
        kit_report_begin(&client->report, false);
        kit_report_error(&client->report, "line too long");
    }
}

static void obey(control_client *client)
{
    obey_line(client);
    while (answering(client) && send_answer(client) && !answering(client)) {
        obey_line(client);
    }
}

// A line without its end may have lost more than that: it is not obeyed.
static bool hear(control_client *client)
{
    const ssize_t got = recv(client->fd, client->line + client->used,
                             sizeof client->line - client->used, MSG_DONTWAIT);

    if (got <= 0) {
        return got < 0 && (errno == EAGAIN || errno == EINTR);
    }
    client->used += static_cast<size_t>(got);
    obey(client);
    if (client->used == sizeof client->line && !answering(client)) {
        refuse_long_line(client);
    }
    return send_answer(client);
}

static void serve_client(control_client *client, short happened)
{
    bool stays = true;

    if (happened != 0) {
        stays = answering(client) ? send_answer(client) : hear(client);
        if (stays && !answering(client)) {
            obey(client);
        }
    }
    if (!stays || kit_now_ms() >= client->give_up_at) {
        drop(client);
    }
}

void kit_control_serve(const struct pollfd *watched, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        const int place = g_control.places[i];
        if (place >= 0) {
            serve_client(&g_control.clients[place], watched[i].revents);
        } else if (watched[i].revents != 0) {
            take_client();
        }
    }
}
