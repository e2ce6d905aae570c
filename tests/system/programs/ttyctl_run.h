/*
 * The operator's command as a process of its own, in a runtime directory of
 * one test, and what it meets there: lock holders and an administration
 * daemon. Every wait ends at a deadline.
 */
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

constexpr int patience_ms = 20000;

struct outcome {
    int status = -1; /* exit status; -1: ended by a signal, or late */
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

    /* Runs the command to its end. */
    outcome run(const words &arguments);
    /* Starts it; out_fd replaces the file that takes standard output. */
    pid_t start(const words &arguments, int out_fd = -1);
    outcome finish(pid_t pid);
    std::string output() const;

    /* Below the store's directory. */
    std::string path(const std::string &name) const;
    std::string info(unsigned int line) const;
    /* The information file, written without the library. */
    void store(unsigned int line, const std::string &content) const;

    std::string root;    /* removed at the end */
    std::string runtime; /* TMPDIR of the command, root if not changed */
    std::vector<pid_t> started;
};

/* A process that holds a lock until it is told to end, or the test does. */
class holder
{
  public:
    explicit holder(const std::string &file,
                    const std::string &name = "holder");
    holder(const holder &) = delete;
    holder &operator=(const holder &) = delete;
    ~holder();

    pid_t pid() const
    {
        return pid_;
    }
    void let_go();

  private:
    pid_t pid_ = -1;
    int end_ = -1;
};

/* The administration daemon's socket. */
class listener
{
  public:
    explicit listener(const std::string &path, int backlog = 8);
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;
    ~listener();

    /* All that the next client sends to its end, as hexadecimal digits. */
    std::string request() const;
    /* A connection, or -1 when there is none in time. */
    int take() const;
    /* Makes further clients wait: nobody takes connections any more. */
    void fill();
    void stop();

  private:
    std::string path_;
    int fd_ = -1;
    std::vector<int> clients_;
};

/* Takes a file's lock for the calling process, until it ends. */
bool take_lock(const std::string &file);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);
bool contains(const std::string &text, const std::string &part);
