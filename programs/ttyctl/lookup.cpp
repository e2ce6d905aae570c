#include "programs/ttyctl/lookup.h"

#include <climits>

#include "programs/shared/escape.h"
#include "programs/shared/parse.h"
#include "programs/ttyctl/line_call.h"
#include "programs/ttyctl/report.h"

constexpr unsigned int SERVICE_MAX = 31;

int run_service(const invocation &call)
{
    unsigned int service = 0;

    if (!parse_number(call.arguments[0], 0, SERVICE_MAX, service)) {
        return usage_error("bad service '" + escaped(call.arguments[0]) +
                           "': 0 to 31");
    }
    guarded_call guarded;
    guarded.work = [&](std::string &text) {
        text = tty_get_service(service) == 1 ? "enabled\n" : "disabled\n";
        return true;
    };
    const call_result result = run_guarded(guarded, deadline_of(call));
    if (result.state != call_state::done) {
        return fail_and_see_log("the list of services cannot be read");
    }
    const int status = print(result.text);
    return status == EXIT_DONE && result.text == "disabled\n" ? EXIT_FAILED
                                                              : status;
}

int run_speed(const invocation &call)
{
    unsigned int from = 0;

    if (!parse_number(call.arguments[0], 0, INT_MAX, from)) {
        return usage_error("bad number '" + escaped(call.arguments[0]) + "'");
    }
    const int number = static_cast<int>(from);
    const int to = call.code ? tty_code2speed(number) : tty_speed2code(number);
    if (to == 0) {
        return fail(EXIT_FAILED, std::string("there is no such ") +
                                     (call.code ? "code: " : "speed: ") +
                                     std::to_string(number));
    }
    return print(std::to_string(to) + "\n");
}
