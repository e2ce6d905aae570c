// A login daemon as a process of its own: a fork of the test that registers
// services and gives itself to the session service.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include <ttyline/vc.h>

#include "tests/system/support/fake_inetd.h"

// A private runtime directory, named by TMPDIR, for the time of a test.
class SystemTest : public ::testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // A name inside the runtime tree: path("/mng/tty/.x").
    std::string path(const std::string &name) const
    {
        return root_ + name;
    }
    // The dump log of the session service.
    std::string log() const;
    // Waits until the log holds text as often as times says.
    bool logged(const std::string &text, int times = 1) const;

    std::string root_;
};

class Daemon
{
  public:
    // prepare runs in the new process; then the loop takes it.
    explicit Daemon(const std::function<void()> &prepare);
    // Ends the daemon, and fails the test when it had ended by itself.
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    pid_t pid() const
    {
        return pid_;
    }
    bool alive() const;
    // Waits for an end that the test has brought about; the status as waitpid()
    // gives it.
    int end();
    // Numbers of its open descriptors, without those of its logs.
    std::vector<int> descriptors() const;
    // How many of them are masters of pseudo-terminals.
    int terminals() const;
    // Waits until it has as many descriptors as given.
    bool settles_at(size_t count) const;
    // Its child processes that have not been reaped.
    std::vector<pid_t> children() const;
    bool has_no_children() const;

  private:
    pid_t pid_;
};

// Waits until condition holds; false after the deadline.
bool eventually(const std::function<bool()> &condition);

// A registration whose callbacks relay whatever comes, without ever blocking
// the loop: what one side does not take stays in a buffer per line. The
// session program echoes its input with "> " before each line.
vc_reg relaying(int family, int port, const char *unix_path, uint32_t protocol);

// Registers a service in the daemon's process, or ends that.
void must_register(const vc_reg &reg);

// What the session program of relaying() does instead, set before the fork of
// the daemon: runs in the session child on the terminal.
extern int (*g_session_program)(int ttyno, const char *ttydev);

// The usual session program.
int echo_lines(int ttyno, const char *ttydev);

// Whether a process exists that is no zombie.
bool process_runs(pid_t pid);

// A client's socket; -1 on failure. Ports are on the loopback.
int connect_port(int family, int port);
int connect_path(const std::string &unix_path);
// Whether somebody listens on the path; the connection is closed again.
bool path_listens(const std::string &unix_path);
// The same of a port, without a connection.
bool port_listens(int family, int port);
// A port of the family that nobody listens on now. A test that comes back to
// its ports after having left them for a while takes a range that no other
// test uses, or it meets another's daemon there.
struct PortRange {
    int first;
    int count;
};
constexpr PortRange USUAL_PORTS = {10000, 22000};
int free_port(int family, const PortRange &range = USUAL_PORTS);
// A client on line 300 of the daemon's only listener.
struct Session {
    int client = -1; // -1 when it did not come that far
    int pid = 0;     // of the session's process
};

// Permits the next request, connects and assigns the line.
Session log_in(InetdConnection *connection,
               const std::function<int()> &connect);

// Reads until the text ends with what is wanted, the peer closes, or the
// deadline.
std::string read_until(int fd, const std::string &wanted);
bool write_all(int fd, const std::string &text);
// Whether the peer ends the connection.
bool ended(int fd);
