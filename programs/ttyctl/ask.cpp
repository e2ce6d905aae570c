// A daemon answers a line of words with rows and a last line that says how it
// went: "ok" or "error: reason", or with one JSON object. An error goes to
// standard error and decides the exit status.
#include "programs/ttyctl/ask.h"

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "programs/shared/escape.h"
#include "programs/ttyctl/report.h"

// Far above the rows of all lines: an answer without end is no answer.
constexpr std::size_t ANSWER_MAX = std::size_t{4} * 1024 * 1024;
static const char JSON_ERROR[] = "{\"error\":";
static const char TEXT_ERROR[] = "error: ";
static const char TEXT_OK[] = "ok\n";

using time_limit = std::chrono::steady_clock::time_point;

static bool wait_for(int fd, short events, time_limit deadline)
{
    pollfd watched = {fd, events, 0};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());

    return left.count() > 0 &&
           poll(&watched, 1, static_cast<int>(left.count())) > 0;
}

static int connect_to(const std::string &path)
{
    sockaddr_un address = {};

    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, path.data(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address),
                           sizeof address) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

// Whether the last line of a text says how the request went.
static bool complete(const std::string &answer, bool json)
{
    if (answer.empty() || answer.back() != '\n') {
        return false;
    }
    const std::size_t before = answer.rfind('\n', answer.size() - 2);
    const std::string last =
        answer.substr(before == std::string::npos ? 0 : before + 1);
    return json || last == TEXT_OK || last.rfind(TEXT_ERROR, 0) == 0;
}

static bool read_answer(int fd, bool json, time_limit deadline,
                        std::string &answer)
{
    char bytes[4096];

    while (!complete(answer, json) && answer.size() < ANSWER_MAX) {
        if (!wait_for(fd, POLLIN, deadline)) {
            return false;
        }
        const ssize_t got = recv(fd, bytes, sizeof bytes, 0);
        if (got <= 0) {
            return false;
        }
        answer.append(bytes, static_cast<std::size_t>(got));
    }
    return complete(answer, json);
}

static int show(const std::string &answer, bool json)
{
    if (json) {
        const int status = print(answer);
        return answer.rfind(JSON_ERROR, 0) == 0 ? EXIT_FAILED : status;
    }
    if (answer.rfind(TEXT_ERROR, 0) == 0) {
        const std::size_t start = sizeof TEXT_ERROR - 1;
        return fail(EXIT_FAILED,
                    escaped(answer.substr(start, answer.size() - start - 1)));
    }
    return print(answer.substr(0, answer.size() - (sizeof TEXT_OK - 1)));
}

// Where the daemons themselves want it.
static bool json_behind(const invocation &call)
{
    return call.arguments.back() == "--json";
}

// The words go as they are: a line end in one of them would be a second
// request.
static bool make_request(const invocation &call, std::string &request)
{
    for (std::size_t i = 1; i < call.arguments.size(); i++) {
        if (call.arguments[i].find_first_of("\r\n") != std::string::npos) {
            return false;
        }
        request += (i > 1 ? " " : "") + call.arguments[i];
    }
    request += call.json && !json_behind(call) ? " --json\n" : "\n";
    return true;
}

int run_ask(const invocation &call)
{
    const std::string &path = call.arguments[0];
    const auto deadline = deadline_of(call);
    const bool json = call.json || json_behind(call);
    std::string request;
    std::string answer;

    if (!make_request(call, request)) {
        return usage_error("a word of the request has a line end");
    }
    const int fd = connect_to(path);
    if (fd < 0) {
        return fail(EXIT_UNANSWERED, escaped(path) + ": " + strerror(errno));
    }
    const bool answered =
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(request.size()) &&
        read_answer(fd, json, deadline, answer);
    close(fd);
    return answered ? show(answer, json)
                    : fail(EXIT_UNANSWERED, escaped(path) + ": no answer");
}
