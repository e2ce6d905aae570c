// The terminal of a line console: the lines typed on it, and the shell that
// borrows it. Works on anything else that can be read as well, without line
// editing and job control then.
#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <termios.h>

// As much as a terminal holds in line editing mode.
constexpr std::size_t TYPED_LINE_MAX = 4096;

struct terminal {
    int fd;           // lines are read here
    bool has_modes;   // standard input is a terminal
    std::string held; // read, the first bytes of it taken
    size_t taken;
    bool after_return;  // the last line ended with a carriage return
    termios found;      // modes at the start, put back at the end
    termios usual;      // modes at the prompt, put back after the shell
    std::string type;   // TERM of the shell
    mode_t shell_umask; // file-creation mask of the shell
};

// Makes the process one that can serve a terminal: as prepare_session_child()
// of child.h, with SIGPIPE ignored, and SIGINT and SIGQUIT kept for
// terminal_read_line(). Gives the terminal on descriptor 0 usual modes.
void terminal_begin(terminal &t);

// Puts the modes back that the terminal had.
void terminal_end(terminal &t);

enum class typed { line, too_long, interrupted, end, failure };

// The next line, without its end, which the last line need not have. A line
// that is too long is read to its end.
// interrupted: Ctrl-C or Ctrl-\, the line that was begun is dropped. errno
// tells the reason of a failure.
typed terminal_read_line(terminal &t, std::string &line);

// Runs the user's shell and waits for its end. On a controlling terminal it
// gets a process group of its own, in the foreground; modes and foreground
// are as before afterwards. False when it could not be started, with errno.
bool terminal_run_shell(const terminal &t);
