// The session program of the load measurements: says "ready;" on a raw
// terminal and takes one command, "e;" to echo what comes from then on, "o N;"
// to print N bytes, "i N;" to read N bytes and answer "done;", "q;" to end.
// What counts the memory of a server knows these processes by their name and
// leaves them out.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <termios.h>
#include <unistd.h>

static constexpr size_t piece_size = 16384;
static char piece[piece_size];

static void make_raw()
{
    termios modes;

    if (tcgetattr(0, &modes) == 0) {
        cfmakeraw(&modes);
        tcsetattr(0, TCSANOW, &modes);
    }
}

static void put(const char *bytes, size_t size)
{
    while (size > 0) {
        const ssize_t n = write(1, bytes, size);
        if (n <= 0) {
            _exit(1);
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
}

static size_t take(size_t most)
{
    const ssize_t n = read(0, piece, most < piece_size ? most : piece_size);

    if (n <= 0) {
        _exit(0);
    }
    return static_cast<size_t>(n);
}

static void read_command(char *command, size_t size)
{
    size_t length = 0;

    do {
        take(1);
        if (length == size - 1) {
            _exit(1);
        }
        command[length++] = piece[0];
    } while (piece[0] != ';');
    command[length] = '\0';
}

static void print(uint64_t bytes)
{
    memset(piece, 'x', sizeof piece);
    while (bytes > 0) {
        const size_t size = bytes < piece_size ? bytes : piece_size;
        put(piece, size);
        bytes -= size;
    }
}

static void swallow(uint64_t bytes)
{
    while (bytes > 0) {
        bytes -= take(bytes);
    }
    put("done;", 5);
}

[[noreturn]] static void echo()
{
    for (;;) {
        put(piece, take(piece_size));
    }
}

int main()
{
    char command[32];

    make_raw();
    put("ready;", 6);
    for (;;) {
        read_command(command, sizeof command);
        const uint64_t bytes = strtoull(command + 1, nullptr, 10);
        if (command[0] == 'e') {
            echo();
        } else if (command[0] == 'o') {
            print(bytes);
        } else if (command[0] == 'i') {
            swallow(bytes);
        } else if (command[0] == 'q') {
            return 0;
        }
    }
}
