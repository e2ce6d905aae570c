// The line console on a terminal that the test opens.
#pragma once

#include <termios.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/system/support/daemon.h"
#include "tests/system/support/program.h"

static const char PROMPT[] = "rl-con 300> ";
extern const std::vector<std::string> AS_STARTED;

// A pseudo-terminal with the modes in which the session service hands it over.
class Terminal
{
  public:
    Terminal();
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    void hang_up();
    int slave() const
    {
        return slave_;
    }
    std::string device() const;
    termios modes_now() const;
    void set_modes(const termios &modes) const;
    pid_t foreground() const;
    void type(const std::string &text) const;
    // Reads until the text has come, which is taken away with all before it.
    std::string expect(const std::string &wanted);

  private:
    int master_;
    int slave_;
    std::string seen_;
};

class RlCon : public SystemTest
{
  protected:
    void SetUp() override;
    // It must not write into a runtime directory that is being removed.
    void TearDown() override;

    // As the session service leaves the child that runs it.
    static void hand_over(int slave);

    // Starts it without waiting for anything.
    void launch(const std::vector<std::string> &arguments = AS_STARTED);
    // Starts it; the greeting is what it says first.
    std::string start(const std::vector<std::string> &arguments = AS_STARTED);
    // The answer to a command: between the echo and the next prompt.
    std::string answer(const std::string &command);

    std::string info_file() const;
    bool stored(const std::string &text) const;

    // Waits until the foreground is neither the console's nor the one given.
    pid_t next_foreground(pid_t other = -1);
    // Enters the shell; its process id, which is its group's.
    pid_t enter_shell();
    void prevent_storing();

    Terminal terminal;
    std::unique_ptr<Program> console;
};
