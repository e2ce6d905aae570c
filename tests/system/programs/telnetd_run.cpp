#include "tests/system/programs/telnetd_run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "tests/system/support/unprivileged.h"

using Clock = std::chrono::steady_clock;

constexpr int NOT_RUN = 127;

// Waits until there is something to read; false after the deadline.
static bool readable(int fd)
{
    pollfd watched = {fd, POLLIN, 0};

    return poll(&watched, 1, DEADLINE_MS) == 1;
}

// The part of a text up to the end of what is wanted, which is taken off it;
// all of it when it is not in there.
static std::string cut(std::string *text, const std::string &wanted)
{
    const size_t at = text->find(wanted);
    const size_t length =
        at == std::string::npos ? text->size() : at + wanted.size();
    std::string part = text->substr(0, length);

    text->erase(0, length);
    return part;
}

Peer::Peer(int fd) : fd_(fd)
{
    EXPECT_GE(fd_, 0);
}

Peer::~Peer()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool Peer::say(const std::string &bytes) const
{
    return write_all(fd_, bytes);
}

bool Peer::refuse() const
{
    return say({IAC, WONT, NAWS, IAC, WONT, TTYPE});
}

void Peer::take(char byte)
{
    enum { DATA, COMMAND, OPTION, INSIDE, INSIDE_COMMAND };

    switch (skip_) {
    case DATA:
        if (byte == IAC) {
            skip_ = COMMAND;
        } else {
            text_ += byte;
        }
        break;
    case COMMAND:
        skip_ = byte == SB                     ? INSIDE
                : byte >= WILL && byte <= DONT ? OPTION
                                               : DATA;
        (byte == IAC ? text_ : commands_) += byte;
        break;
    case OPTION:
        skip_ = DATA;
        commands_ += byte;
        break;
    case INSIDE:
        skip_ = byte == IAC ? INSIDE_COMMAND : INSIDE;
        break;
    default:
        skip_ = byte == SE ? DATA : INSIDE;
    }
}

bool Peer::read_some()
{
    char bytes[4096];

    if (!readable(fd_)) {
        return false;
    }
    const ssize_t got = read(fd_, bytes, sizeof bytes);
    for (ssize_t i = 0; i < got; i++) {
        take(bytes[i]);
    }
    return got > 0;
}

std::string Peer::text_until(const std::string &wanted)
{
    while (text_.find(wanted) == std::string::npos && read_some()) {
    }
    return cut(&text_, wanted);
}

std::string Peer::text_to_end()
{
    while (read_some()) {
    }
    return std::move(text_);
}

static void run_on(const char *device, const std::vector<std::string> &words,
                   const char *type)
{
    std::vector<std::string> kept = words;
    std::vector<char *> argv;

    for (std::string &word : kept) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setsid();
    const int slave = open(device, O_RDWR);
    for (int fd = 0; fd <= 2; fd++) {
        dup2(slave, fd);
    }
    setenv("TERM", type, 1);
    execvp(argv[0], argv.data());
    dprintf(2, "no client: %s is not installed, see dev/install-deps\n",
            argv[0]);
    _exit(NOT_RUN);
}

Client::Client(const std::vector<std::string> &words, int columns, int rows,
               const char *type)
    : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    EXPECT_GE(master_, 0);
    EXPECT_EQ(grantpt(master_), 0);
    EXPECT_EQ(unlockpt(master_), 0);
    resize(columns, rows);
    const std::string device = ptsname(master_);
    pid_ = fork();
    if (pid_ == 0) {
        run_on(device.c_str(), words, type);
    }
}

Client::~Client()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(master_);
}

bool Client::type(const std::string &text) const
{
    return write(master_, text.data(), text.size()) ==
           static_cast<ssize_t>(text.size());
}

void Client::resize(int columns, int rows) const
{
    winsize size = {};

    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = static_cast<unsigned short>(rows);
    EXPECT_EQ(ioctl(master_, TIOCSWINSZ, &size), 0);
}

std::string Client::shown_until(const std::string &wanted)
{
    char bytes[4096];

    while (shown_.find(wanted) == std::string::npos && readable(master_)) {
        const ssize_t got = read(master_, bytes, sizeof bytes);
        if (got <= 0) {
            break;
        }
        shown_.append(bytes, static_cast<size_t>(got));
    }
    return cut(&shown_, wanted);
}

bool Client::ends()
{
    const bool ended = eventually([&] {
        return waitpid(pid_, nullptr, WNOHANG) == pid_;
    });

    pid_ = ended ? -1 : pid_;
    return ended;
}

void Telnetd::SetUp()
{
    SystemTest::SetUp();
    inetd = std::make_unique<AnsweringInetd>();
    own_by_user(root_);
}

void Telnetd::TearDown()
{
    if (daemon) {
        EXPECT_TRUE(process_runs(daemon->pid())) << "it ended by itself";
    }
    daemon.reset();
    inetd.reset();
    SystemTest::TearDown();
}

void Telnetd::start(const std::string &command,
                    const std::vector<std::string> &options)
{
    port = free_port(AF_INET6);
    std::vector<std::string> words = {"--port",
                                      port_word(),
                                      "--allow",
                                      "127.0.0.1",
                                      "--allow",
                                      "::1",
                                      "--no-authentication",
                                      "--control",
                                      path("/control")};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"--program", "/bin/sh", "-c", command});
    daemon =
        std::make_unique<Program>(TTYLINE_TELNETD_PATH, words, become_user);
    inetd->start();
    ASSERT_TRUE(eventually([&] {
        return port_listens(AF_INET, port) && port_listens(AF_INET6, port);
    }));
}

std::unique_ptr<Peer> Telnetd::connect() const
{
    return std::make_unique<Peer>(connect_port(AF_INET, port));
}

std::string Telnetd::ask(const std::string &line) const
{
    const Peer client(connect_path(path("/control")));
    Peer reader(dup(client.fd()));

    client.say(line + "\n");
    shutdown(client.fd(), SHUT_WR);
    return reader.text_to_end();
}

bool Telnetd::stored_has(const std::string &entry) const
{
    std::ifstream file(path("/mng/tty/.tty_info_258"));
    std::string line;

    while (std::getline(file, line)) {
        if (line == entry || line == entry + "\r") {
            return true;
        }
    }
    return false;
}
