// Where the line library keeps what ttyctl looks at. The names repeat those
// of the library: ttyctl has to see who holds a lock without asking the
// library, which would wait for it.
#pragma once

#include <set>
#include <string>

// "0 to 1585, 80000 or 80001"; false leaves line as it was.
bool parse_line(const std::string &text, unsigned int &line);

// The information file that a get, or a set, of this line works on. Line 0 is
// read from the tree of instance 0 beside the caller's own; empty when TMPDIR
// does not tell where that is.
std::string info_to_read(unsigned int line);
std::string info_to_write(unsigned int line);

std::string lock_of(const std::string &info);
std::string admin_socket();
std::string library_log();

// The library refuses a path that does not fit its buffer.
bool info_fits(const std::string &info);
bool socket_fits(const std::string &socket);

// Lines with an information file. False: see errno, and the directory.
bool find_lines(std::set<unsigned int> &lines, std::string &directory);
