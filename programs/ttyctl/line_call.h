// Calls of the line library for one line or to the administration daemon, and
// why they failed. Every int is a status to exit with.
#pragma once

#include <functional>
#include <string>

#include "programs/shared/info_file.h"
#include "programs/ttyctl/guard.h"
#include "programs/ttyctl/invocation.h"

using line_work = std::function<bool(std::string &text)>;

// "line 7"
std::string line_text(unsigned int line);

// Refuses an information file whose path the library would not take, or would
// follow or wait for.
int check_info_path(const std::string &info);

// Makes a call that writes the line's file.
call_result write_line(const invocation &call, unsigned int line, bool sends,
                       const line_work &work);

// Whether what a call has stored is there, and all that was before.
int check_stored(unsigned int line, const line_values &before,
                 const stored_pairs &stored);

// What became of it. The note says what the call may have done before it was
// given up.
int report_write(const invocation &call, unsigned int line,
                 const call_result &result, const std::string &note);

// Makes a call that does nothing but send a request.
int send_request(const invocation &call, const line_work &work);

int fail_and_see_log(const std::string &message);
int fail_locked(const invocation &call, unsigned int line,
                const call_result &result, const std::string &note);
int fail_stuck(unsigned int line, const std::string &info,
               const std::string &note);

// The daemon did not take the request in time, or not at all; stored says
// what the call had done until then.
int fail_unanswered(const invocation &call, const std::string &stored);
int fail_unsent(const std::string &stored);
