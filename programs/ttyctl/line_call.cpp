// The library only says that something failed. The reason for the operator is
// worked out here, before the call where it can be known and after it where it
// cannot.
#include "programs/ttyctl/line_call.h"

#include <unistd.h>

#include "programs/shared/escape.h"
#include "programs/ttyctl/report.h"
#include "programs/ttyctl/store.h"

std::string line_text(unsigned int line)
{
    return "line " + std::to_string(line);
}

static std::string waited_text(const invocation &call)
{
    return "; gave up after " + std::to_string(call.timeout) + " s";
}

int fail_and_see_log(const std::string &message)
{
    return fail(EXIT_FAILED, message + "; see " + library_log());
}

int fail_locked(const invocation &call, unsigned int line,
                const call_result &result, const std::string &note)
{
    return fail(EXIT_LOCKED, line_text(line) + " is locked by " +
                                 holder_text(result.holder) + note +
                                 waited_text(call));
}

int fail_stuck(unsigned int line, const std::string &info,
               const std::string &note)
{
    return fail(EXIT_FAILED, line_text(line) +
                                 ": the library did not come back from " +
                                 info + note);
}

int fail_unanswered(const invocation &call, const std::string &stored)
{
    return fail(EXIT_UNANSWERED,
                "the line administration daemon does not take requests at " +
                    admin_socket() + stored + waited_text(call));
}

int fail_unsent(const std::string &stored)
{
    const std::string socket = admin_socket();

    if (access(socket.c_str(), F_OK) != 0) {
        return fail_and_see_log("the line administration daemon is absent: no "
                                "socket " +
                                socket + stored);
    }
    return fail_and_see_log("the line administration daemon at " + socket +
                            " did not take the request" + stored);
}

int check_info_path(const std::string &info)
{
    if (!info_fits(info)) {
        return fail(EXIT_FAILED, "TMPDIR is too long: the library takes no "
                                 "path like " +
                                     info);
    }
    for (const std::string &path : {info, lock_of(info), info + ".tmp"}) {
        if (!plain_or_absent(path)) {
            return fail(EXIT_FAILED, path + " is no plain file");
        }
    }
    return EXIT_DONE;
}

call_result write_line(const invocation &call, unsigned int line, bool sends,
                       const line_work &work)
{
    guarded_call guarded;

    guarded.lock_path = lock_of(info_to_write(line));
    guarded.sends = sends;
    guarded.work = work;
    return run_guarded(guarded, deadline_of(call));
}

int check_stored(unsigned int line, const line_values &before,
                 const stored_pairs &stored)
{
    const std::string info = info_to_write(line);
    line_values after;

    const std::string missing = read_info(info, after)
                                    ? missing_after(before, after, stored)
                                    : "the file";
    if (missing.empty()) {
        return EXIT_DONE;
    }
    return fail(EXIT_FAILED, line_text(line) + ": " + escaped(missing) +
                                 " is not in " + info +
                                 " as it should be; is the disk full?");
}

int report_write(const invocation &call, unsigned int line,
                 const call_result &result, const std::string &note)
{
    const std::string info = info_to_write(line);

    switch (result.state) {
    case call_state::done:
        return EXIT_DONE;
    case call_state::locked:
        return fail_locked(call, line, result, result.begun ? note : "");
    case call_state::stuck:
        return fail_stuck(line, info, note);
    case call_state::failed:
    case call_state::unanswered:
        break;
    }
    return fail_and_see_log(line_text(line) + " cannot be stored in " + info +
                            note);
}

int send_request(const invocation &call, const line_work &work)
{
    guarded_call guarded;

    if (!socket_fits(admin_socket())) {
        return fail(EXIT_FAILED, "TMPDIR is too long: the library takes no "
                                 "path like " +
                                     admin_socket());
    }
    guarded.sends = true;
    guarded.work = work;
    const call_result result = run_guarded(guarded, deadline_of(call));
    if (result.state == call_state::done) {
        return EXIT_DONE;
    }
    return result.state == call_state::unanswered ? fail_unanswered(call, "")
                                                  : fail_unsent("");
}
