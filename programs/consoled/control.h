/*
 * A control socket for a login daemon: a unix stream socket on which one
 * command a line is taken and answered with "ok" or "error: ...". The
 * commands change listeners while the loop runs; "help" lists them.
 *
 * Only the user of the process can connect (mode 0600). One client is served
 * at a time, and dropped when it says nothing, or takes no answer, for ten
 * seconds.
 */
#ifndef TTYLINE_EXAMPLES_DAEMON_CONTROL_H
#define TTYLINE_EXAMPLES_DAEMON_CONTROL_H

#include <string>
#include <vector>

/*
 * Opens the socket and serves it on a thread of its own until the process
 * ends. After the services were registered, once per process. A socket file
 * that nobody serves any more is replaced.
 *
 * protocols  those of the registered services; commands for others are refused
 *
 * False, with the reason in error, when it cannot be had.
 */
bool control_start(const std::string &path, const std::vector<int> &protocols,
                   std::string &error);

/* The answer to one line, for services of these protocols. */
std::string control_answer(const std::string &line,
                           const std::vector<int> &protocols);

#endif
