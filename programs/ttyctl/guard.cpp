#include "programs/ttyctl/guard.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "programs/shared/escape.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds LOOK_INTERVAL(10);
constexpr milliseconds LATE_INTERVAL(50);
// For what waits neither for a lock nor for the daemon, such as a disk.
constexpr milliseconds WORK_LIMIT(10000);

constexpr pid_t UNKNOWN_HOLDER = -1;
constexpr char MARK_DONE = '+';
constexpr char MARK_FAILED = '-';

// A lock file that cannot be opened counts as free: there is none yet, or the
// library will fail on it too.
pid_t lock_holder(const std::string &lock_path)
{
    struct flock lock = {};

    const int fd =
        open(lock_path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool held = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(fd);
    if (!held) {
        return 0;
    }
    return lock.l_pid > 0 ? lock.l_pid : UNKNOWN_HOLDER;
}

pid_t wait_unlocked(const std::string &lock_path, time_point deadline)
{
    pid_t holder = lock_holder(lock_path);

    while (holder != 0 && steady_clock::now() < deadline) {
        std::this_thread::sleep_for(LOOK_INTERVAL);
        holder = lock_holder(lock_path);
    }
    return holder;
}

static void write_all(int fd, const std::string &text)
{
    std::size_t done = 0;

    while (done < text.size()) {
        const ssize_t ret = write(fd, text.data() + done, text.size() - done);
        if (ret < 0 && errno != EINTR) {
            return;
        }
        done += ret > 0 ? static_cast<std::size_t>(ret) : 0;
    }
}

// The library's sockets may break: that is its result, not the child's end.
[[noreturn]] static void run_child(const guarded_call &call, int fd,
                                   pid_t parent)
{
    std::string text;

    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(EXIT_FAILURE);
    }
    std::signal(SIGPIPE, SIG_IGN);
    const bool done = call.work(text);
    write_all(fd, text + (done ? MARK_DONE : MARK_FAILED));
    _exit(EXIT_SUCCESS);
}

// Whether the child has answered or ended by then.
static bool answered_before(int fd, time_point end)
{
    pollfd ask = {fd, POLLIN, 0};

    for (;;) {
        const auto left =
            std::chrono::ceil<milliseconds>(end - steady_clock::now());
        const int wait = static_cast<int>(std::max<long long>(left.count(), 0));
        const int ret = poll(&ask, 1, wait);
        if (ret >= 0 || errno != EINTR) {
            return ret != 0;
        }
    }
}

// The child ends right after its answer; without one it died.
static call_result read_answer(int fd)
{
    call_result result;
    char bytes[4096];

    for (;;) {
        const ssize_t ret = read(fd, bytes, sizeof bytes);
        if (ret > 0) {
            result.text.append(bytes, static_cast<std::size_t>(ret));
        } else if (ret == 0 || errno != EINTR) {
            break;
        }
    }
    if (!result.text.empty()) {
        if (result.text.back() == MARK_DONE) {
            result.state = call_state::done;
        }
        result.text.pop_back();
    }
    return result;
}

// Why a child that is late is, if that is a reason to give it up. One that
// holds the line's lock itself is at work.
static std::optional<call_state> why_late(const guarded_call &call, pid_t child,
                                          time_point limit, pid_t &holder)
{
    holder = call.lock_path.empty() ? 0 : lock_holder(call.lock_path);
    if (holder != 0 && holder != child) {
        return call_state::locked;
    }
    if (call.sends && holder == 0) {
        return call_state::unanswered;
    }
    if (steady_clock::now() >= limit) {
        return call_state::stuck;
    }
    return std::nullopt;
}

// What is seen once may have passed already, or be that moment of a busy line
// between two holders: only what is seen twice in a row counts.
static call_result watch_child(const guarded_call &call, pid_t child, int fd,
                               time_point deadline)
{
    const time_point limit =
        std::max(deadline, steady_clock::now()) + WORK_LIMIT;
    std::optional<call_state> before;
    time_point next = std::max(deadline, steady_clock::now() + LATE_INTERVAL);
    pid_t holder = 0;

    while (!answered_before(fd, next)) {
        const std::optional<call_state> state =
            why_late(call, child, limit, holder);
        if (state && state == before) {
            kill(child, SIGKILL);
            return {*state, holder, true, ""};
        }
        before = state;
        next = steady_clock::now() + LATE_INTERVAL;
    }
    return read_answer(fd);
}

call_result run_guarded(const guarded_call &call, time_point deadline)
{
    int ends[2];

    if (!call.lock_path.empty()) {
        const pid_t holder = wait_unlocked(call.lock_path, deadline);
        if (holder != 0) {
            return {call_state::locked, holder, false, ""};
        }
    }
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return {};
    }
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        run_child(call, ends[1], parent);
    }
    close(ends[1]);
    call_result result;
    if (child > 0) {
        result = watch_child(call, child, ends[0], deadline);
        waitpid(child, nullptr, 0);
    }
    close(ends[0]);
    return result;
}

std::string holder_text(pid_t holder)
{
    std::string name;

    if (holder <= 0) {
        return "a process that has no number here";
    }
    std::ifstream file("/proc/" + std::to_string(holder) + "/comm");
    std::getline(file, name);
    return "process " + std::to_string(holder) +
           (name.empty() ? "" : " (" + escaped(name) + ")");
}
