/*
 * Reads and writes what is stored of a line.
 *
 *     keys LINE               every key that has a value
 *     keys LINE NAME          one
 *     keys LINE NAME VALUE    stores one
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <ttyline/kit.h>
#include <ttyline/tty.h>

enum { VALUE_SIZE = 1024 };

static int show(unsigned int line, const char *name)
{
    char value[VALUE_SIZE];

    if (tty_getenv(line, name, value, sizeof value) == NULL) {
        return 0;
    }
    printf("%s=%s\n", name, value);
    return 1;
}

static int show_all(unsigned int line)
{
    int any = 0;

    for (unsigned int i = 0; kit_key(i) != NULL; i++) {
        any = show(line, kit_key(i)) || any;
    }
    return any;
}

int main(int argc, char **argv)
{
    char *end = NULL;
    unsigned long line = argc > 1 ? strtoul(argv[1], &end, 10) : TTY_LINES;

    if (argc > 4 || line >= TTY_LINES || *end != '\0') {
        fprintf(stderr, "usage: keys LINE [NAME [VALUE]]\n");
        return 2;
    }
    /* What others could have put there must not be followed or believed. */
    if (kit_runtime_check() != 0) {
        fprintf(stderr, "keys: %s\n", kit_error());
        return 1;
    }
    if (argc == 4) {
        int stored = tty_setenv((unsigned int)line, argv[2], argv[3]) == 0;
        umask(022); /* a store leaves the process without a mask */
        return stored ? 0 : 1;
    }
    return (argc == 3 ? show((unsigned int)line, argv[2])
                      : show_all((unsigned int)line))
               ? 0
               : 1;
}
