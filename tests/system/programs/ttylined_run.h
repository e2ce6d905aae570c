// A line-allocation daemon of one test: its process, its private runtime
// directory and the connections of the login daemons that the test plays.
// Every wait ends at a deadline.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

#include "tests/support/login_records.h"
#include "tests/support/text.h"

// Descriptor with an owner.
struct unique_fd {
    int fd = -1;

    unique_fd() = default;
    explicit unique_fd(int number) : fd(number)
    {
    }
    unique_fd(unique_fd &&other) noexcept : fd(other.fd)
    {
        other.fd = -1;
    }
    unique_fd &operator=(unique_fd &&other) noexcept;
    ~unique_fd();
    void reset();
};

struct run_options {
    std::vector<std::string> arguments;
    int open_files = 0; // limit of descriptors, 0: as it is
    bool ready = true;  // wait until it listens
};

struct ttylined_run {
    std::string directory; // TMPDIR of the daemon
    pid_t pid = -1;
    unique_fd in;
    unique_fd out;
    unique_fd err;

    ttylined_run();
    ttylined_run(const ttylined_run &) = delete;
    ttylined_run &operator=(const ttylined_run &) = delete;
    ~ttylined_run();

    // False when it did not become ready.
    bool start(const run_options &options = {});
    std::string socket_path() const;
    std::string admin_path() const;
    std::string control_path() const;
    // Waits for the end; the exit status, or -1 for a signal or too late.
    int exit_status();
};

// Waits for a child; its exit status, or -1 for a signal or too late.
int wait_for_child(pid_t child);

// Runs the work in a process of its own that uses the daemon's runtime
// directory: 0 when it returned true, 1 when false, -1 as above.
int in_child(const ttylined_run &run, const std::function<bool()> &work);

unique_fd connect_unix(const std::string &path);

bool send_bytes(int fd, const void *bytes, std::size_t length);
bool send_record(const unique_fd &fd, const tty_cmsg &record);
std::optional<tty_cmsg> read_record(const unique_fd &fd);
bool waits_for_end(const unique_fd &fd);

// Up to and with a line that contains the text; what came when it is late.
std::string read_until(const unique_fd &fd, const std::string &text);

// Sends a command and reads the reply, without the dot.
std::string command(const unique_fd &to, const unique_fd &from,
                    const std::string &line);

// The line that answers an accept report; -1000 when no answer came.
int take_line(const unique_fd &fd, int protocol, int sockfd, int accept_id);

// True once the daemon has handled all that was sent before on this
// connection: a listen request was answered.
bool settled(const unique_fd &fd);

using cells = std::vector<std::string>;

// The cells of a column of a table, without its name. Columns are told apart
// by blanks, so a cell with a blank in it must be in the last one, of which
// only the first word is given.
cells column(const std::string &table, const std::string &name);

class Ttylined : public ::testing::Test
{
  protected:
    ttylined_run run;

    void start(std::vector<std::string> arguments = {}, int open_files = 0)
    {
        run_options options;
        options.arguments = std::move(arguments);
        options.open_files = open_files;
        ASSERT_TRUE(run.start(options));
    }

    unique_fd client() const
    {
        return connect_unix(run.socket_path());
    }

    int refusal(std::vector<std::string> arguments)
    {
        run_options options;
        options.arguments = std::move(arguments);
        options.ready = false;
        run.start(options);
        return run.exit_status();
    }
};
