// A line's information file: its name, those of its companions, and reading
// it line by line. Used inside the library's critical section only, as the
// line buffer is one per process.
#pragma once

#include <stddef.h>
#include <unistd.h>

#include "common/runtime_dir.h"

// A line is read in pieces of at most LINE_LIMIT bytes; the byte behind it
// stays zero, so that a piece is always a terminated text.
constexpr int LINE_LIMIT = 1024;
extern char g_tty_tmpbuf[LINE_LIMIT + 1];

constexpr size_t COMPANION_SIZE = TTY_PATH_SIZE + 10;
extern const char INFO_FILE[];

struct info_names {
    char info[TTY_PATH_SIZE];
    char temporary[COMPANION_SIZE];
    char lock[COMPANION_SIZE];
};

// The values that open every message of an operation on a line.
#define LINE_IDS(function, ttyno)                                              \
    function, static_cast<int>(ttyno), getpid(), gettid()

// Adds the line number to prefix and makes the companions' names. A name that
// does not fit is refused with errno ENAMETOOLONG: cut, it could be another
// line's.
bool name_files(info_names *names, const char *prefix, unsigned int ttyno);

// Opens an information file. Returns its descriptor, or -1 with errno set, also
// for what is no file: reading it might wait for ever or have no end.
int open_info(const char *path, int flags);

// Reads one line, its line feed included, into buf (at most buflen bytes, no
// terminator added to a full buffer). Returns the number of bytes, -1 at the
// end of the file, or 0 after a read error that delivered nothing. Leaves fd
// in blocking mode.
int tty_read_line(int fd, char *buf, int buflen);

// Reads the next piece into the line buffer. Returns false at the end of the
// file, and when the file cannot be read, which *failed then tells.
bool next_piece(int fd, bool *failed);

// Whether the piece in the line buffer is the line of the key name. A longer
// key that begins with name does not match.
bool piece_is_of(const char *name);

// Messages shared by get and set; both print errno.
void log_no_path(const char *function, unsigned int ttyno);
void log_open_failure(const char *function, unsigned int ttyno,
                      const char *verb, const char *path);
