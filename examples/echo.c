/*
 * The smallest login daemon: each connection to the path gets a line of its
 * own, and what is typed there comes back.
 *
 *     echo PATH
 */
#include <stdio.h>

#include <ttyline/kit.h>

static int echo(const kit_session *session, void *context)
{
    char text[256];

    (void)context;
    printf("line %d, type something:\n", session->line);
    fflush(stdout);
    while (fgets(text, sizeof text, stdin) != NULL) {
        printf("> %s", text);
        fflush(stdout);
    }
    return 0;
}

int main(int argc, char **argv)
{
    static kit_service service = {
        .size = sizeof service, .protocol = 7, .function = echo};
    static const kit_daemon daemon = {.size = sizeof daemon};

    service.path = argc == 2 ? argv[1] : "";
    if (kit_offer(&service) == 0) {
        kit_run(&daemon);
    }
    fprintf(stderr, "echo: %s\n", kit_error());
    return 1;
}
