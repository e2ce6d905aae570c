// The private runtime directory of a test, and what the libraries left there.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace support
{

// The whole content; empty, and a test failure, when it cannot be read.
std::string slurp(const std::string &path);
// Creates or replaces a file.
void spill(const std::string &path, const std::string &content);
bool exists(const std::string &path);

// What the log line's opening stamp and, if asked for, " pid:" were taken
// from; a test failure when they do not have their form.
std::string without_stamp(const std::string &line);
std::string without_stamp_and_pid(const std::string &line, pid_t pid);
// Source line numbers in a message become "N".
std::string unlined(const std::string &message);

// The lines of a dump file, each with its own line end ("\n" or "\r\n").
// Empty when there is no file.
std::vector<std::string> lines_of(const std::string &path);

// Compares descriptors and children of the process before and after a test.
class nothing_left : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

  private:
    std::vector<std::string> descriptors_before;
    std::vector<pid_t> children_before;
};

// A test in a runtime directory of its own: an empty directory, TMPDIR naming
// it, umask 022. "mng/tty" is not made, unless the test does. TearDown drops
// all fault rules, checks that nothing was left open and removes it.
class runtime_test : public nothing_left
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // A path inside the runtime directory; the name begins with a slash.
    std::string path(const std::string &name) const;
    // Makes the directories that the libraries make on first use.
    void make_directories() const;
    // Messages of the line library's log, stamps taken off.
    std::vector<std::string> tty_log() const;
    // Messages of the session service's log, stamps and process ids (of this
    // process) taken off.
    std::vector<std::string> vc_log() const;

    std::string runtime_dir;
};

} // namespace support
