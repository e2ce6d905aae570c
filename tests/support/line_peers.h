// Who else works on a line: a process that holds its lock, and the line
// administration daemon. Every wait ends at a deadline.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

constexpr int PATIENCE_MS = 20000;

// A process that holds a lock until it is told to end, or the test does.
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

// The administration daemon's socket.
class listener
{
  public:
    explicit listener(const std::string &path, int backlog = 8);
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;
    ~listener();

    // All that the next client sends to its end, as hexadecimal digits.
    std::string request() const;
    // A connection, or -1 when there is none in time.
    int take() const;
    // Makes further clients wait: nobody takes connections any more.
    void fill();
    void stop();

  private:
    std::string path_;
    int fd_ = -1;
    std::vector<int> clients_;
};

// Takes a file's lock for the calling process, until it ends.
bool take_lock(const std::string &file);
