#include "tests/support/wait.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace support
{

bool wait_until(const std::function<bool()> &holds, int milliseconds)
{
    using clock = std::chrono::steady_clock;
    const auto deadline =
        clock::now() + std::chrono::milliseconds(milliseconds);

    while (!holds()) {
        if (clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

int wait_child(pid_t pid, int milliseconds)
{
    int status = 0;
    const auto ended = [&] {
        return waitpid(pid, &status, WNOHANG) == pid;
    };

    if (wait_until(ended, milliseconds)) {
        return status;
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

int in_child(const std::function<bool()> &work, int milliseconds)
{
    const pid_t pid = fork();

    if (pid == 0) {
        _exit(work() ? 0 : 1);
    }
    const int status = wait_child(pid, milliseconds);
    return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace support
