// A login daemon on the kit as a process of its own, beside an inetd that
// answers as it should.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <ttyline/kit.h>

#include "tests/system/support/daemon.h"

// An empty service: a unix path and a protocol for local programs.
kit_service service_on(const std::string &unix_path);

class KitTest : public SystemTest
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the daemon with these services, which the test keeps, and waits
    // until each listens. Records that a test changes beforehand:
    void start(std::vector<const kit_service *> services);
    kit_daemon record = {};
    // Runs in the daemon's process before all else.
    std::function<void()> beforehand;

    // A client of the service's path or port, connected; -1 on failure.
    static int client_of(const kit_service &service);

    // What a client gets from now on until the daemon closes the connection, or
    // until the deadline.
    static std::string all_of(int client);

    // Asks the control socket for one answer, whole.
    std::string ask(const std::string &line) const;

    // The value of one word "name=value" in an answer's first row; empty when
    // there is none.
    static std::string word_of(const std::string &answer,
                               const std::string &name);

    // The row of the only session, once the daemon knows that its program runs:
    // what the program does may be seen before.
    std::string running() const;

    // What is stored of the line; lines lose their ends.
    std::vector<std::string> stored(int line) const;
    bool stored_has(int line, const std::string &entry) const;

    std::string console() const
    {
        return path("/console");
    }

    std::unique_ptr<AnsweringInetd> inetd;
    std::unique_ptr<Daemon> daemon;
    std::string control_path;
};

// A list of a record.
using Words = const char *const[];
