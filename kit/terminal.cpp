#include "kit/terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <ttyline/kit.h>

#include "kit/error.h"

constexpr unsigned int MOST_CELLS = 0xffff;

static const char NAME_CHARACTERS[] = "abcdefghijklmnopqrstuvwxyz"
                                      "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                      "0123456789._+-";

static int g_master = -1;
static char g_type[KIT_TYPE_SIZE];
static unsigned int g_columns;
static unsigned int g_rows;

void kit_terminal_open(int master)
{
    g_master = master;
}

kit_terminal kit_terminal_told(void)
{
    return {g_type[0] != '\0' ? g_type : nullptr, g_columns, g_rows};
}

int kit_terminal_size(unsigned int columns, unsigned int rows)
{
    struct winsize size = {};

    if (columns == 0 || columns > MOST_CELLS || rows == 0 ||
        rows > MOST_CELLS) {
        return kit_fail("%u times %u is no size of a terminal", columns, rows);
    }
    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = static_cast<unsigned short>(rows);
    if (ioctl(g_master, TIOCSWINSZ, &size) != 0) {
        return kit_fail("no terminal takes a size: %s", strerror(errno));
    }
    g_columns = columns;
    g_rows = rows;
    return 0;
}

// It becomes a line of a file and a variable that programs make a path of.
static bool is_plain_name(const char *name)
{
    return name[0] != '.' && name[strspn(name, NAME_CHARACTERS)] == '\0';
}

int kit_terminal_type(const char *type)
{
    const size_t length = strlen(type);

    if (length == 0 || length >= KIT_TYPE_SIZE) {
        return kit_fail("a terminal type has 1 to %zu bytes",
                        KIT_TYPE_SIZE - 1);
    }
    if (!is_plain_name(type)) {
        return kit_fail("a terminal type has letters, digits and . _ + -");
    }
    memcpy(g_type, type, length + 1);
    return 0;
}

unsigned char kit_terminal_character(int index)
{
    struct termios modes;

    if (index < 0 || index >= NCCS || tcgetattr(g_master, &modes) != 0) {
        return _POSIX_VDISABLE;
    }
    return modes.c_cc[index];
}

void kit_terminal_note(const kit_terminal *told)
{
    if (told->type != nullptr) {
        (void)kit_terminal_type(told->type);
    }
    if (told->columns != 0 && told->columns <= MOST_CELLS && told->rows != 0 &&
        told->rows <= MOST_CELLS) {
        g_columns = told->columns;
        g_rows = told->rows;
    }
}

static int open_programs_side(void)
{
    return ioctl(g_master, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
}

// A poll has the terminal look at what is on the way to it first.
bool kit_terminal_has_unread(void)
{
    struct pollfd side = {open_programs_side(), POLLIN, 0};

    const bool unread = side.fd >= 0 && poll(&side, 1, 0) == 1;
    if (side.fd >= 0) {
        close(side.fd);
    }
    return unread;
}

// It stands in two places: on the way to the terminal, and with it, which only
// an end of its program's side empties.
void kit_terminal_forget_typed(void)
{
    const int slave = open_programs_side();

    tcflush(g_master, TCOFLUSH);
    if (slave >= 0) {
        tcflush(slave, TCIFLUSH);
        close(slave);
    }
}
