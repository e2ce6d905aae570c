#include "tests/system/support/program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/support/daemon.h"

constexpr int NOT_RUN = 127;

[[noreturn]] static void run(const std::string &file,
                             const std::vector<std::string> &arguments)
{
    std::vector<std::string> words = {file};
    std::vector<char *> argv;

    words.insert(words.end(), arguments.begin(), arguments.end());
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    execv(file.c_str(), argv.data());
    _exit(NOT_RUN);
}

Program::Program(const std::string &file,
                 const std::vector<std::string> &arguments,
                 const std::function<void()> &prepare)
{
    const pid_t parent = getpid();

    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(NOT_RUN);
        }
        prepare();
        run(file, arguments);
    }
}

Program::~Program()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

int Program::wait()
{
    if (pid_ > 0 && eventually([&] {
            return waitpid(pid_, &status_, WNOHANG) == pid_;
        })) {
        pid_ = -1;
    }
    return pid_ > 0 ? -1 : status_;
}

int Program::exit_code()
{
    const int status = wait();

    return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The input is in the pipe before the program starts: it must fit in there.
std::string output_of(const std::string &file,
                      const std::vector<std::string> &arguments,
                      const std::string &input, int *exit_code)
{
    int in[2];
    int out[2];

    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 ||
        write(in[1], input.data(), input.size()) !=
            static_cast<ssize_t>(input.size())) {
        return "no pipes";
    }
    close(in[1]);
    Program program(file, arguments, [&] {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(out[1], 2);
    });
    close(in[0]);
    close(out[1]);
    std::string text;
    char bytes[4096];
    struct pollfd one = {out[0], POLLIN, 0};
    while (poll(&one, 1, DEADLINE_MS) > 0) {
        const ssize_t got = read(out[0], bytes, sizeof bytes);
        if (got <= 0) {
            break;
        }
        text.append(bytes, static_cast<size_t>(got));
    }
    close(out[0]);
    *exit_code = program.exit_code();
    return text;
}
