/*
 * A login daemon: each connection gets a line, and what it types comes back.
 *
 *     echo PATH
 */
#include <stdio.h>
#include <string.h>

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
    kit_service service = {.size = sizeof service, .protocol = 7};
    const kit_daemon daemon = {.size = sizeof daemon};

    service.path = argc == 2 ? argv[1] : "";
    service.function = echo;
    if (kit_offer(&service) == 0) {
        kit_run(&daemon);
    }
    fprintf(stderr, "%s: %s\n", argv[0], kit_error());
    return 1;
}
