// The other end of the inetd connection, played by a test: it decides what is
// said and when, also what a well-behaved daemon would never say.
#pragma once

#include <atomic>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include <ttyline/vc.h>

// How long a test waits for anything that must happen.
constexpr int DEADLINE_MS = 20000;

// One connection of a login daemon.
class InetdConnection
{
  public:
    explicit InetdConnection(int fd) : fd_(fd)
    {
    }
    InetdConnection(InetdConnection &&other) noexcept;
    InetdConnection &operator=(InetdConnection &&other) noexcept;
    InetdConnection(const InetdConnection &) = delete;
    InetdConnection &operator=(const InetdConnection &) = delete;
    ~InetdConnection();

    // The next record, or nothing at the end of the stream or the deadline.
    std::optional<tty_cmsg> receive(int deadline_ms = DEADLINE_MS);
    // Whether the daemon closes the connection before the deadline; records
    // that come first are dropped.
    bool closed_by_peer(int deadline_ms = DEADLINE_MS);
    // Whether nothing comes within the time.
    bool silent(int for_ms);
    bool send(const tty_cmsg &record);
    bool send_bytes(const void *data, size_t length);
    // Answers a listen request with its permit.
    bool permit(const tty_cmsg &request);
    // Answers an accept report with a line.
    bool assign(tty_cmsg report, int ttyno);
    void close_now();
    int fd() const
    {
        return fd_;
    }

  private:
    int fd_;
};

// The socket in the runtime directory that TMPDIR names.
class FakeInetd
{
  public:
    FakeInetd();
    ~FakeInetd();
    FakeInetd(const FakeInetd &) = delete;
    FakeInetd &operator=(const FakeInetd &) = delete;

    // The next daemon that connects; its descriptor is -1 after the deadline.
    InetdConnection accept(int deadline_ms = DEADLINE_MS);
    // Whether nobody connects within the time.
    bool nobody_connects(int for_ms);

  private:
    int fd_;
    std::string path_;
};

// An inetd that answers as it should, on a thread of its own: permits what is
// asked for, gives the lines that network sessions have, and takes them back.
class AnsweringInetd
{
  public:
    AnsweringInetd();
    ~AnsweringInetd();
    // Starts to answer. Not before the daemon has been forked, which could
    // start no threads of its own under a sanitizer otherwise.
    void start();
    AnsweringInetd(const AnsweringInetd &) = delete;
    AnsweringInetd &operator=(const AnsweringInetd &) = delete;

    // Lines that were reported clean, connections that daemons have made.
    int cleans() const
    {
        return cleans_;
    }
    int connections() const
    {
        return connections_;
    }
    // Whether every request has its answer and the daemon has taken them all.
    bool everything_answered() const;

  private:
    void run();
    void answer(InetdConnection *connection, const tty_cmsg &record);

    FakeInetd inetd_;
    std::set<int> free_lines_;
    std::atomic<bool> ending_{false};
    // Waiting for a record, and none had come when it looked.
    std::atomic<bool> idle_{false};
    std::atomic<int> cleans_{0};
    std::atomic<int> connections_{0};
    std::atomic<int> current_fd_{-1};
    std::thread thread_;
};
