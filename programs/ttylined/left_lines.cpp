#include "programs/ttylined/left_lines.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <sys/syscall.h>
#include <unistd.h>

#include <ttyline/kit.h>

#include "programs/shared/info_file.h"
#include "programs/shared/runtime_path.h"
#include "programs/ttylined/trace.h"

constexpr int32_t LOCK_PATIENCE_MS = 1000;
// For all of them.
constexpr unsigned int CLEAN_LIMIT_S = 60;

static std::string session_on(int ttyno)
{
    line_values values;

    if (!read_info(runtime_path("/mng/tty/.tty_info_" + std::to_string(ttyno)),
                   values)) {
        return "";
    }
    const std::string id = values.of["SESSIONID"];
    return id == "0" ? "" : id;
}

std::vector<left_line> left_lines_of(const line_pool &pool, unsigned client)
{
    std::vector<left_line> left;

    for (const pool_line &line : pool.lines) {
        if (line.state != line_state::running || line.client != client) {
            continue;
        }
        const std::string session = session_on(line.assignment.ttyno);
        if (!session.empty()) {
            left.push_back({line.assignment.ttyno, session});
        }
    }
    return left;
}

// The connections of others must not stay open for as long as this takes. What
// ttylined hears as signals ends this process.
[[noreturn]] static void clean_all(const std::vector<left_line> &lines)
{
    sigset_t none;

    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGALRM}) {
        std::signal(number, SIG_DFL);
    }
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    syscall(SYS_close_range, STDERR_FILENO + 1U, ~0U, 0U);
    alarm(CLEAN_LIMIT_S);
    for (const left_line &line : lines) {
        kit_line_clean(line.ttyno, line.session.c_str(), LOCK_PATIENCE_MS);
    }
    _exit(0);
}

void left_lines_clean(const std::vector<left_line> &lines)
{
    if (lines.empty()) {
        return;
    }
    const pid_t helper = fork();
    if (helper == 0) {
        clean_all(lines);
    }
    trace_note(helper > 0 ? "process " + std::to_string(helper) + " cleans " +
                                std::to_string(lines.size()) + " lines"
                          : std::string("fork: ") + std::strerror(errno));
}
