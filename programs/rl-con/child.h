// The way from the console, or from a forked child, to a program on a terminal.
#pragma once

#include <string>

// Makes the forked child a clean process to start a program in: default
// signal dispositions, no signal blocked, umask 022, nothing open above
// descriptor 2, and clean_environment().
void prepare_session_child(const char *term);

// Empties the process's environment but for PATH, HOME, SHELL, USER, LOGNAME,
// LANG, TMPDIR (the line's programs find the runtime directory by it) and the
// session service's TTYNUM, TTYTYPE, PROTOCOL and CONN_TYPE; sets TERM, and
// PATH when there is none.
void clean_environment(const char *term);

// Closes every descriptor from lowest on. The second one is what the first
// falls back to where the kernel has no call for it.
void close_descriptors_from(int lowest);
void close_listed_descriptors(int lowest);

// Gives the terminal on fd the modes that an ordinary shell expects, and a
// size when it has none. The session service hands it over with line editing,
// echo and carriage-return translation switched off.
void make_terminal_sane(int fd);

// SHELL, else the shell of the password file, else /bin/sh.
std::string user_shell();
