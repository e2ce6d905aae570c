#include "tests/unit/kit/keeper_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "kit/keeper.h"
#include "tests/support/fault.h"
#include "tests/support/tcp_pair.h"
#include "tests/support/wait.h"

using Clock = std::chrono::steady_clock;

// What a narrow client takes at a time.
constexpr int LITTLE = 1024;

void KeeperFixture::SetUp()
{
    runtime_test::SetUp();
    make_directories();
    service.size = sizeof service;
    service.protocol = 7;
    service.path = "/nowhere";
    run("echo up");
}

void KeeperFixture::TearDown()
{
    if (keeper > 0) {
        kill(keeper, SIGKILL);
        support::wait_child(keeper, PATIENCE_MS);
    }
    close_ends();
    runtime_test::TearDown();
}

void KeeperFixture::close_ends()
{
    for (int *fd : {&client, &bell, &channel}) {
        if (*fd >= 0) {
            close(*fd);
        }
        *fd = -1;
    }
    messages.clear();
}

void KeeperFixture::run(const char *command)
{
    program[2] = command;
    service.program = program;
}

void KeeperFixture::connect_tcp()
{
    int ends[2];

    support::tcp_pair(ends, narrow ? LITTLE : 0);
    client = ends[0];
    connection = ends[1];
}

// As the session service leaves the process: leader of a session on the
// terminal.
static void take_terminal(const char *device)
{
    setsid();
    const int fd = open(device, O_RDWR);
    ioctl(fd, TIOCSCTTY, 0);
    for (int stream = 0; stream <= 2; stream++) {
        dup2(fd, stream);
    }
    setenv("TTYNUM", "258", 1);
}

// In place of the system log.
static ssize_t log_line(int, const void *text, size_t size, int,
                        const sockaddr *, socklen_t)
{
    const std::string name = std::string(getenv("TMPDIR")) + "/log";
    const int fd =
        open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const ssize_t written = write(fd, text, size);

    close(fd);
    return written;
}

void KeeperFixture::begin(const std::function<void()> &prepare)
{
    int bells[2];
    int channels[2];
    int connections[2];

    close_ends();
    kit_entry *entry = kit_entry_make(LINE);
    ASSERT_TRUE(kit_pair_open(bells) && kit_pair_open(channels));
    if (over_tcp) {
        connect_tcp();
    } else {
        ASSERT_EQ(
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, connections), 0);
        client = connections[1];
        connection = connections[0];
    }
    bell = bells[0];
    channel = channels[0];
    id = entry->id;
    entry->session.service = &service;
    entry->family = over_tcp ? AF_INET : AF_UNIX;
    entry->keeper_bell = bells[1];
    entry->program_channel = channels[1];
    entry->connection = connection;
    entry->master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(grantpt(entry->master), 0);
    ASSERT_EQ(unlockpt(entry->master), 0);
    device = ptsname(entry->master);
    keeper = fork();
    if (keeper == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        take_terminal(device.c_str());
        REPLACE_CALL(sendto, log_line);
        fault::replacing(true);
        if (prepare) {
            prepare();
        }
        kit_keep(entry, device.c_str());
    }
    kit_entry_free(entry);
}

void KeeperFixture::type(const std::string &text) const
{
    EXPECT_EQ(send(client, text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
}

static bool ends_with(const std::string &text, const std::string &end)
{
    return !end.empty() && text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string KeeperFixture::read_until(const std::string &wanted) const
{
    const auto late = Clock::now() + std::chrono::milliseconds(PATIENCE_MS);
    std::string text;
    char bytes[4096];

    while (!ends_with(text, wanted)) {
        pollfd watched = {client, POLLIN, 0};
        if (Clock::now() > late) {
            return text + "(still open)";
        }
        if (poll(&watched, 1, 100) <= 0) {
            continue;
        }
        const ssize_t got = read(client, bytes, sizeof bytes);
        if (got <= 0) {
            return text;
        }
        text.append(bytes, static_cast<size_t>(got));
    }
    return text;
}

std::string KeeperFixture::all() const
{
    return read_until("");
}

int KeeperFixture::end()
{
    const int status = support::wait_child(keeper, PATIENCE_MS);

    keeper = -1;
    return status;
}

void KeeperFixture::listen_to_bell()
{
    bell_message message;

    while (kit_bell_hear(bell, &message) > 0) {
        messages.push_back(message);
    }
}

std::vector<uint32_t> KeeperFixture::heard()
{
    std::vector<uint32_t> kinds;

    listen_to_bell();
    for (const bell_message &message : messages) {
        kinds.push_back(message.kind);
    }
    return kinds;
}

int KeeperFixture::number_of(bell_kind kind)
{
    listen_to_bell();
    for (const bell_message &message : messages) {
        if (message.kind == kind) {
            return message.number;
        }
    }
    return -1000;
}

std::string KeeperFixture::text_of(bell_kind kind)
{
    listen_to_bell();
    for (const bell_message &message : messages) {
        if (message.kind == kind) {
            return message.text;
        }
    }
    return "nothing heard";
}

bool KeeperFixture::hears(bell_kind kind)
{
    return support::wait_until(
        [&] {
            return number_of(kind) != -1000;
        },
        PATIENCE_MS);
}

std::string KeeperFixture::stored() const
{
    return support::slurp(path("/mng/tty/.tty_info_258"));
}

std::string KeeperFixture::logged() const
{
    return support::exists(path("/log")) ? support::slurp(path("/log")) : "";
}
