// The operator's command as a process of its own, in a runtime directory of
// one test, and what it meets there: lock holders and an administration
// daemon. Every wait ends at a deadline.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

#include "tests/support/line_peers.h"
#include "tests/support/text.h"

struct outcome {
    int status = -1; // exit status; -1: ended by a signal, or late
    int signal = 0;
    std::string out;
    std::string err;
};

using words = std::vector<std::string>;

class TtyctlTest : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // Runs the command to its end.
    outcome run(const words &arguments);
    // Starts it; out_fd replaces the file that takes standard output.
    pid_t start(const words &arguments, int out_fd = -1);
    outcome finish(pid_t pid);
    std::string output() const;

    // Below the store's directory.
    std::string path(const std::string &name) const;
    std::string info(unsigned int line) const;
    // The information file, written without the library.
    void store(unsigned int line, const std::string &content) const;

    std::string root;    // removed at the end
    std::string runtime; // TMPDIR of the command, root if not changed
    std::vector<pid_t> started;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);

std::vector<std::string> split_lines(const std::string &text);

// It did what it was told, and said nothing besides.
void expect_done(const outcome &result);

// It ended with this status and one message, and printed nothing.
void expect_message(const outcome &result, int status, const std::string &part);

// For calls that a busy machine must not make late.
words with_timeout(const char *seconds, const words &arguments);

// The cells of the table of lines, without the names of its columns.
using rows = std::vector<std::vector<std::string>>;
rows rows_of(const std::string &table);

// A terminal of the operator's own.
struct operator_terminal {
    int master = -1;
    int slave = -1;

    operator_terminal();
    operator_terminal(const operator_terminal &) = delete;
    operator_terminal &operator=(const operator_terminal &) = delete;
    ~operator_terminal();

    // What was shown, until it holds the text as often as asked for.
    std::string shown(const std::string &text, int times = 1) const;
};

// Tells when another process has opened the file: it has looked at the lock.
class opening
{
  public:
    explicit opening(const std::string &file);
    opening(const opening &) = delete;
    opening &operator=(const opening &) = delete;
    ~opening();
    bool seen() const;

  private:
    int fd_;
};
