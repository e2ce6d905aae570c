/*
 * A chat: whoever connects to the path is asked for a name and then hears what
 * everybody says. Only the users that are named may come in, if any are.
 *
 *     chat PATH [USER ...]
 */
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <ttyline/kit.h>

enum { TEXT_SIZE = 400, NAME_SIZE = 24 };

/* ---- In the daemon, on its loop's thread: nothing here may wait. ---- */

/* A session that takes nothing just now misses a line. */
static void tell(const kit_session *to, void *text)
{
    if (to->logged_in) {
        kit_post(to->line, text, strlen(text));
    }
}

static void tell_all(const kit_session *from, const char *what)
{
    char text[TEXT_SIZE + 128];

    snprintf(text, sizeof text, "[%d] %s (%s)%s\n", from->line, from->user,
             from->peer, what);
    kit_each_session(tell, text);
}

static void received(const kit_session *from, const void *data, size_t length,
                     void *context)
{
    char what[TEXT_SIZE + 8];

    (void)context;
    snprintf(what, sizeof what, ": %.*s", (int)length, (const char *)data);
    tell_all(from, what);
}

static void ended(const kit_session *session, int status, void *context)
{
    (void)status, (void)context;
    if (session->logged_in) {
        tell_all(session, " has left");
    }
}

/* ---- In a process of the session's own, on its terminal. ---- */

/* A line from the terminal, without its end; 0 at the end of input. */
static int read_line(char *text, int size)
{
    if (fgets(text, size, stdin) == NULL) {
        return 0;
    }
    text[strcspn(text, "\r\n")] = '\0';
    return 1;
}

static int chat(const kit_session *session, void *context)
{
    char text[TEXT_SIZE], name[NAME_SIZE];
    struct pollfd ready[2] = {{0, POLLIN, 0},
                              {kit_descriptor(session), POLLIN, 0}};

    (void)context;
    setvbuf(stdin, NULL, _IONBF, 0); /* poll() must see what is unread */
    printf("you are %s on line %d\nyour name: ", session->peer, session->line);
    fflush(stdout);
    if (!read_line(name, sizeof name) || kit_login(session, name, 1) != 0) {
        return 1;
    }
    kit_send(session, "hello", 5);
    while (poll(ready, 2, -1) >= 0) {
        if (ready[1].revents != 0) {
            ssize_t got = kit_receive(session, text, sizeof text);
            if (got <= 0) {
                break;
            }
            printf("%.*s", (int)got, text);
            fflush(stdout);
        }
        if (ready[0].revents != 0) {
            if (!read_line(text, sizeof text)) {
                break;
            }
            kit_send(session, text, strlen(text));
        }
    }
    return 0;
}

int main(int argc, char **argv)
{
    static kit_admission admission = {.size = sizeof admission};
    static kit_service service = {.size = sizeof service,
                                  .name = "chat",
                                  .protocol = 7,
                                  .function = chat,
                                  .received = received,
                                  .ended = ended,
                                  .admission = &admission};
    static kit_daemon daemon = {.size = sizeof daemon};

    service.path = argc > 1 ? argv[1] : "";
    if (argc > 2) { /* the path is open to all: the list decides */
        admission.users = (const char *const *)(argv + 2);
        daemon.path_mode = 0666;
    }
    if (kit_offer(&service) == 0) {
        kit_run(&daemon);
    }
    fprintf(stderr, "chat: %s\n", kit_error());
    return 1;
}
