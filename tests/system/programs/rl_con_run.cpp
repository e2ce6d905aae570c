#include "tests/system/programs/rl_con_run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

using Clock = std::chrono::steady_clock;

const std::vector<std::string> AS_STARTED = {"-n 300", "-t /dev/pts/4",
                                             "-i ins"};

Terminal::Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    grantpt(master_);
    unlockpt(master_);
    slave_ = open(ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios modes = modes_now();
    modes.c_iflag &= ~tcflag_t{ICRNL | INLCR};
    modes.c_lflag &= ~tcflag_t{ICANON | ECHO | ECHOE | ECHOK};
    set_modes(modes);
}

Terminal::~Terminal()
{
    hang_up();
    close(slave_);
}

void Terminal::hang_up()
{
    if (master_ >= 0) {
        close(master_);
        master_ = -1;
    }
}

std::string Terminal::device() const
{
    return ptsname(master_);
}

termios Terminal::modes_now() const
{
    termios modes = {};
    EXPECT_EQ(tcgetattr(slave_, &modes), 0);
    return modes;
}

void Terminal::set_modes(const termios &modes) const
{
    EXPECT_EQ(tcsetattr(slave_, TCSANOW, &modes), 0);
}

pid_t Terminal::foreground() const
{
    return tcgetpgrp(master_);
}

void Terminal::type(const std::string &text) const
{
    EXPECT_EQ(write(master_, text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
}

std::string Terminal::expect(const std::string &wanted)
{
    const auto end = Clock::now() + std::chrono::milliseconds(DEADLINE_MS);
    size_t at;

    while ((at = seen_.find(wanted)) == std::string::npos) {
        struct pollfd one = {master_, POLLIN, 0};
        char bytes[4096];
        if (Clock::now() > end) {
            ADD_FAILURE() << "no " << wanted << " in: " << seen_;
            return "";
        }
        if (poll(&one, 1, 100) <= 0) {
            continue;
        }
        const ssize_t got = read(master_, bytes, sizeof bytes);
        if (got <= 0) {
            ADD_FAILURE() << "end before " << wanted << " in: " << seen_;
            return "";
        }
        seen_.append(bytes, static_cast<size_t>(got));
    }
    const std::string text = seen_.substr(0, at + wanted.size());
    seen_.erase(0, text.size());
    return text;
}

void RlCon::SetUp()
{
    SystemTest::SetUp();
    std::filesystem::create_directories(path("/mng/tty"));
    setenv("SHELL", "/bin/sh", 1);
    setenv("PS1", "", 1);
}

void RlCon::TearDown()
{
    console.reset();
    SystemTest::TearDown();
}

void RlCon::hand_over(int slave)
{
    setsid();
    ioctl(slave, TIOCSCTTY, 0);
    for (int fd = 0; fd <= 2; fd++) {
        dup2(slave, fd);
    }
    fcntl(slave, F_DUPFD, 20);
    for (int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE}) {
        signal(number, SIG_IGN);
    }
    umask(0);
}

void RlCon::launch(const std::vector<std::string> &arguments)
{
    console = std::make_unique<Program>(RL_CON_PATH, arguments, [&] {
        hand_over(terminal.slave());
    });
}

std::string RlCon::start(const std::vector<std::string> &arguments)
{
    launch(arguments);
    return terminal.expect(PROMPT);
}

std::string RlCon::answer(const std::string &command)
{
    terminal.type(command + "\n");
    terminal.expect(command + "\r\n");
    std::string text = terminal.expect(PROMPT);
    text.resize(text.size() - std::min(text.size(), strlen(PROMPT)));
    return text;
}

std::string RlCon::info_file() const
{
    std::ifstream file(path("/mng/tty/.tty_info_300"), std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

bool RlCon::stored(const std::string &text) const
{
    return info_file().find(text) != std::string::npos;
}

pid_t RlCon::next_foreground(pid_t other)
{
    pid_t group = -1;
    EXPECT_TRUE(eventually([&] {
        group = terminal.foreground();
        return group > 0 && group != console->pid() && group != other;
    }));
    return group;
}

pid_t RlCon::enter_shell()
{
    terminal.type("shell\n");
    const pid_t shell = next_foreground();
    // The console's prompt may be on its way still: wait for an answer.
    terminal.type("echo shell-$((40+2))\n");
    terminal.expect("shell-42\r\n");
    return shell;
}

void RlCon::prevent_storing()
{
    // A directory where the new content would be written.
    std::filesystem::create_directories(path("/mng/tty/.tty_info_300.tmp/x"));
}
