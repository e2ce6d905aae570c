// A keeper in a process of its own, between a client and a daemon that the test
// plays. Rules that a test arms there are those of the program too, until that
// executes another.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <ttyline/kit.h>

#include "kit/bell.h"
#include "kit/table.h"
#include "tests/support/runtime.h"

class KeeperFixture : public support::runtime_test
{
  protected:
    static constexpr int LINE = 258;
    static constexpr int PATIENCE_MS = 20000;

    void SetUp() override;
    void TearDown() override;

    // A shell command as the session's program.
    void run(const char *command);
    // Starts the keeper of the service's session. What prepare does in its
    // process comes first.
    void begin(const std::function<void()> &prepare = nullptr);
    // The connection is one over the loopback, not over a unix path; one of a
    // client that takes very little at a time.
    bool over_tcp = false;
    bool narrow = false;

    void type(const std::string &text) const;
    // What the client gets until it ends with this; all of it at its end.
    std::string read_until(const std::string &wanted) const;
    std::string all() const;
    // Waits for the end of the keeper: its status as waitpid() gives it.
    int end();

    // What the daemon has heard by now, and the number that came with one kind
    // of it, -1000 when there was none.
    std::vector<uint32_t> heard();
    int number_of(bell_kind kind);
    std::string text_of(bell_kind kind);
    // Waits for it.
    bool hears(bell_kind kind);

    // What is stored on the line, and what was sent to the system log.
    std::string stored() const;
    std::string logged() const;

    kit_service service = {};
    std::string id;
    int client = -1;
    int bell = -1;
    int channel = -1;
    // The connection's number in the keeper.
    int connection = -1;
    pid_t keeper = -1;
    std::string device;

  private:
    void connect_tcp();
    void close_ends();
    void listen_to_bell();

    const char *program[4] = {"/bin/sh", "-c", nullptr, nullptr};
    std::vector<bell_message> messages;
};
