/*
 * What a login daemon needs besides its callbacks: the way from the forked
 * child to the session program, and the peers that may come in. Linking
 * session_child.cpp also provides printk_syslog_ext() of ttyline/vc.h, on top
 * of syslog(3).
 */
#ifndef TTYLINE_EXAMPLES_DAEMON_UTIL_H
#define TTYLINE_EXAMPLES_DAEMON_UTIL_H

#include <cstdint>
#include <string>
#include <sys/socket.h>
#include <vector>

/*
 * Makes the forked child a clean process to start a program in: default
 * signal dispositions, no signal blocked, umask 022, nothing open above
 * descriptor 2, and clean_environment().
 */
void prepare_session_child(const char *term);

/*
 * Empties the process's environment but for PATH, HOME, SHELL, USER, LOGNAME,
 * LANG, TMPDIR (the line's programs find the runtime directory by it) and the
 * session service's TTYNUM, TTYTYPE, PROTOCOL and CONN_TYPE; sets TERM, and
 * PATH when there is none.
 */
void clean_environment(const char *term);

/*
 * Closes every descriptor from lowest on. The second one is what the first
 * falls back to where the kernel has no call for it.
 */
void close_descriptors_from(int lowest);
void close_listed_descriptors(int lowest);

/*
 * Gives the terminal on fd the modes that an ordinary shell expects, and a
 * size when it has none. The session service hands it over with line editing,
 * echo and carriage-return translation switched off.
 */
void make_terminal_sane(int fd);

/* Addresses that agree with this one in the first bits. */
struct allow_entry {
    uint8_t address[16]; /* IPv6, or IPv4 in its IPv6-mapped form */
    unsigned bits;
};

/* Parses ADDRESS or ADDRESS/BITS, IPv4 or IPv6; false when it is neither. */
bool parse_allow_entry(const char *text, allow_entry &entry);

/* True when the list is empty or one of its entries covers the address. */
bool allow_list_permits(const std::vector<allow_entry> &list,
                        const sockaddr *peer);

/* SHELL, else the shell of the password file, else /bin/sh. */
std::string user_shell();

#endif
