// What the daemon says about its work, a line each with the time before it.
// There is one trace, as there is one process.
#pragma once

#include <string>

#include "programs/ttylined/text_out.h"

// A plain file that would become larger is put aside as PATH.1.
constexpr std::size_t TRACE_FILE_MAX = std::size_t{8} * 1024 * 1024;

// To a file, which is made or appended to; false, and why, when it cannot be
// opened.
bool trace_open(const std::string &path, std::string &error);

// To what the file's path leads to now, as after a rotation of logs. Without a
// file nothing happens.
void trace_reopen();

// To an output that somebody else has, and flushes.
void trace_to(text_out &out);

// False while there is none, and nothing need be made into words.
bool trace_wanted();

void trace_line(const std::string &text);

// The same for what the daemon noticed, not what it was sent or sent.
void trace_note(const std::string &text);

// The file, to be flushed when it can be written; no descriptor without one.
text_out &trace_file();
