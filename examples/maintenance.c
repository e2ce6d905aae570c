/*
 * Speaks to the line administration daemon: nobody gets a line while a command
 * runs.
 *
 *     maintenance SECONDS COMMAND [ARGUMENT ...]
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ttyline/tty.h>

enum { LONGEST_HOLD = 1800 };

/* The exit status of the command, 127 when it could not be run. */
static int run(char **command)
{
    int status = 0;
    pid_t child = fork();

    if (child == 0) {
        execvp(command[0], command);
        fprintf(stderr, "maintenance: %s: %s\n", command[0], strerror(errno));
        _exit(127);
    }
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return child > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : 127;
}

int main(int argc, char **argv)
{
    char *end = NULL;
    unsigned long seconds = argc > 2 ? strtoul(argv[1], &end, 10) : 0;

    if (seconds < 1 || seconds > LONGEST_HOLD || *end != '\0') {
        fprintf(stderr, "usage: maintenance SECONDS COMMAND [ARGUMENT ...]\n"
                        "SECONDS (1 to 1800) bounds the hold\n");
        return 2;
    }
    /* A daemon that has gone would end this process between hold and end. */
    signal(SIGPIPE, SIG_IGN);
    if (tty_hold_line(TTY_LINES, (unsigned int)seconds) != 0) {
        fprintf(stderr, "maintenance: the daemon cannot be asked\n");
        return 1;
    }
    int result = run(argv + 2);
    if (tty_release_line() != 0) {
        fprintf(stderr, "maintenance: the daemon has gone\n");
    }
    return result;
}
