// A program of the project as a process of its own, which does not outlive
// the test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

class Program
{
  public:
    // prepare runs in the new process, before the program does.
    Program(const std::string &file, const std::vector<std::string> &arguments,
            const std::function<void()> &prepare);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    pid_t pid() const
    {
        return pid_;
    }
    // Waits for the end; the status as waitpid() gives it, -1 when it is late.
    int wait();
    // Waits for the end; the exit code, -1 when it is late or a signal did it.
    int exit_code();

  private:
    pid_t pid_;
    int status_ = -1;
};

// Runs it on these input and output files and gives what it printed, on
// standard error too.
std::string output_of(const std::string &file,
                      const std::vector<std::string> &arguments,
                      const std::string &input, int *exit_code);
