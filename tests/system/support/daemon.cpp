#include "tests/system/support/daemon.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

using Clock = std::chrono::steady_clock;

void SystemTest::SetUp()
{
    char name[] = "/tmp/ttyline-XXXXXX";

    ASSERT_NE(mkdtemp(name), nullptr);
    root_ = name;
    setenv("TMPDIR", name, 1);
}

void SystemTest::TearDown()
{
    if (HasFailure()) {
        // What the daemon has to say for itself.
        const std::string text = log();
        const size_t most = 20000;
        std::cerr << text.substr(text.size() > most ? text.size() - most : 0);
    }
    // What a daemon that was killed leaves behind dies a moment later and may
    // make a last file until then.
    std::error_code error;
    EXPECT_TRUE(eventually([&] {
        std::filesystem::remove_all(root_, error);
        return !error;
    })) << error.message();
}

static std::string slurp(const std::string &name)
{
    std::ifstream file(name, std::ios::binary);
    std::stringstream text;

    text << file.rdbuf();
    return text.str();
}

std::string SystemTest::log() const
{
    return slurp(path("/mng/tty/.vc_dump.txt"));
}

static int occurrences(const std::string &in, const std::string &text)
{
    int count = 0;

    for (size_t at = in.find(text); at != std::string::npos;
         at = in.find(text, at + 1)) {
        count++;
    }
    return count;
}

bool SystemTest::logged(const std::string &text, int times) const
{
    return eventually([&] {
        return occurrences(log(), text) >= times;
    });
}

bool eventually(const std::function<bool()> &condition)
{
    const auto end = Clock::now() + std::chrono::milliseconds(DEADLINE_MS);

    while (Clock::now() < end) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return condition();
}

Daemon::Daemon(const std::function<void()> &prepare) : pid_(fork())
{
    if (pid_ == 0) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prepare();
        vc_service_start();
        _exit(99);
    }
}

int Daemon::end()
{
    int status = -1;

    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
}

Daemon::~Daemon()
{
    if (pid_ < 0) {
        return;
    }
    EXPECT_TRUE(alive()) << "the daemon ended by itself";
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool Daemon::alive() const
{
    return process_runs(pid_);
}

static std::string stat_of(pid_t pid)
{
    const std::string line = slurp("/proc/" + std::to_string(pid) + "/stat");
    const size_t end = line.rfind(')');

    // What follows the name: state and parent first.
    return end == std::string::npos ? "" : line.substr(end + 2);
}

bool process_runs(pid_t pid)
{
    const std::string stat = stat_of(pid);

    return !stat.empty() && stat[0] != 'Z' && stat[0] != 'X';
}

static bool ends_with(const std::string &text, const std::string &end)
{
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<int> Daemon::descriptors() const
{
    std::vector<int> numbers;
    std::error_code gone;
    const std::string name = "/proc/" + std::to_string(pid_) + "/fd";

    for (const auto &entry : std::filesystem::directory_iterator(name)) {
        const auto target = std::filesystem::read_symlink(entry, gone);
        // A log file is open for an instant now and then.
        if (!gone && !ends_with(target.string(), "_dump.txt")) {
            numbers.push_back(std::stoi(entry.path().filename().string()));
        }
    }
    return numbers;
}

int Daemon::terminals() const
{
    int count = 0;
    std::error_code gone;
    const std::string name = "/proc/" + std::to_string(pid_) + "/fd";

    for (const auto &entry : std::filesystem::directory_iterator(name)) {
        const auto target = std::filesystem::read_symlink(entry, gone);
        count += !gone && target.filename() == "ptmx" ? 1 : 0;
    }
    return count;
}

bool Daemon::settles_at(size_t count) const
{
    return eventually([&] {
        return descriptors().size() == count;
    });
}

std::vector<pid_t> Daemon::children() const
{
    std::vector<pid_t> found;

    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        std::istringstream stat(stat_of(std::stoi(name)));
        char state = 0;
        pid_t parent = 0;
        if (stat >> state >> parent && parent == pid_) {
            found.push_back(std::stoi(name));
        }
    }
    return found;
}

bool Daemon::has_no_children() const
{
    return eventually([&] {
        return children().empty();
    });
}

// One direction of a line's relay.
struct Direction {
    int from = -1;
    int to = -1;
    std::string waiting;
};

static Direction to_terminal[TTY_LINES];
static Direction to_peer[TTY_LINES];

int (*g_session_program)(int, const char *) = echo_lines;

static void set_nonblocking(int fd)
{
    int on = 1;
    ioctl(fd, FIONBIO, &on);
}

// The service's handlers interrupt calls; what was interrupted comes again.
static bool later(int error)
{
    return error == EAGAIN || error == EINTR;
}

// Moves what it can. Returns what waits, or -1 at the end of either side.
static int move(Direction *way)
{
    char buf[4096];

    if (way->from < 0) {
        return -1;
    }
    set_nonblocking(way->from);
    set_nonblocking(way->to);
    if (way->waiting.empty()) {
        const ssize_t got = read(way->from, buf, sizeof buf);
        if (got == 0 || (got < 0 && !later(errno))) {
            return -1;
        }
        way->waiting.append(buf, got > 0 ? static_cast<size_t>(got) : 0);
    }
    const ssize_t put =
        write(way->to, way->waiting.data(), way->waiting.size());
    if (put < 0 && !later(errno)) {
        return -1;
    }
    way->waiting.erase(0, put > 0 ? static_cast<size_t>(put) : 0);
    errno = EAGAIN;
    return static_cast<int>(way->waiting.size());
}

static int line_init(int)
{
    return 0;
}

static int line_alloc(int ttyno, int, int sockfd, int master_fd)
{
    to_terminal[ttyno] = {sockfd, master_fd, ""};
    to_peer[ttyno] = {master_fd, sockfd, ""};
    return 0;
}

static int line_read(int ttyno)
{
    return move(&to_terminal[ttyno]);
}

static int line_write(int ttyno)
{
    return move(&to_peer[ttyno]);
}

static int line_kill(int ttyno)
{
    // What the program wrote last is still in the terminal.
    for (int i = 0; i < 64 && move(&to_peer[ttyno]) >= 0; i++) {
    }
    to_terminal[ttyno] = {};
    to_peer[ttyno] = {};
    return 0;
}

static int line_shell(int ttyno, const char *ttydev)
{
    return g_session_program(ttyno, ttydev);
}

int echo_lines(int, const char *)
{
    char byte;
    std::string line;

    while (read(0, &byte, 1) == 1) {
        line += byte;
        if (byte == '\n' || byte == '\r') {
            const std::string answer = "> " + line;
            if (write(1, answer.data(), answer.size()) < 0) {
                break;
            }
            line.clear();
        }
    }
    return 0;
}

vc_reg relaying(int family, int port, const char *unix_path, uint32_t protocol)
{
    vc_reg reg = {};

    reg.socket_type = family;
    reg.listen_port = port;
    reg.listen_path = unix_path;
    reg.protocol = protocol;
    reg.init_func = line_init;
    reg.read_func = line_read;
    reg.write_func = line_write;
    reg.kill_func = line_kill;
    reg.alloc_func = line_alloc;
    reg.shell_func = line_shell;
    return reg;
}

void must_register(const vc_reg &reg)
{
    if (vc_service_reg(&reg) != 0) {
        _exit(98);
    }
}

struct Address {
    sockaddr_storage storage = {};
    socklen_t length = 0;
};

static Address loopback(int family, int port)
{
    Address address;

    if (family == AF_INET) {
        auto *in = reinterpret_cast<sockaddr_in *>(&address.storage);
        in->sin_family = AF_INET;
        in->sin_port = htons(static_cast<uint16_t>(port));
        in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.length = sizeof *in;
    } else {
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&address.storage);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(static_cast<uint16_t>(port));
        in6->sin6_addr = in6addr_loopback;
        address.length = sizeof *in6;
    }
    return address;
}

int connect_port(int family, int port)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const Address address = loopback(family, port);

    if (connect(fd, reinterpret_cast<const sockaddr *>(&address.storage),
                address.length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int connect_path(const std::string &unix_path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};

    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, unix_path.c_str(), sizeof address.sun_path - 1);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address),
                sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool path_listens(const std::string &unix_path)
{
    const int fd = connect_path(unix_path);

    if (fd >= 0) {
        close(fd);
    }
    return fd >= 0;
}

Session log_in(InetdConnection *connection, const std::function<int()> &connect)
{
    Session session;
    const auto request = connection->receive();

    if (!request || !connection->permit(*request) || !eventually([&] {
            return (session.client = connect()) >= 0;
        })) {
        return {};
    }
    const auto report = connection->receive();
    if (!report || !connection->assign(*report, 300)) {
        return {};
    }
    const auto success = connection->receive();
    if (!success || success->vc_flag != VC_FLAG_ALLOC_OK) {
        return {};
    }
    session.pid = success->pid;
    return session;
}

bool port_listens(int family, int port)
{
    const char *name = family == AF_INET ? "/proc/net/tcp" : "/proc/net/tcp6";
    std::ifstream table(name);
    char wanted[8];
    std::string line;

    snprintf(wanted, sizeof wanted, ":%04X", static_cast<unsigned>(port));
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string number;
        std::string local;
        std::string peer;
        std::string state;
        words >> number >> local >> peer >> state;
        if (state == "0A" && local.size() > 5 &&
            local.compare(local.size() - 5, 5, wanted) == 0) {
            return true;
        }
    }
    return false;
}

// Below the numbers that the kernel hands out, and other ones in each of the
// tests that run side by side.
int free_port(int family, const PortRange &range)
{
    static int next;

    for (;;) {
        const int port = range.first + (getpid() * 16 + next++) % range.count;
        const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const Address address = loopback(family, port);
        const bool free =
            bind(fd, reinterpret_cast<const sockaddr *>(&address.storage),
                 address.length) == 0;
        close(fd);
        if (free) {
            return port;
        }
    }
}

std::string read_until(int fd, const std::string &wanted)
{
    const auto end = Clock::now() + std::chrono::milliseconds(DEADLINE_MS);
    std::string text;
    char buf[4096];

    while (text.find(wanted) == std::string::npos && Clock::now() < end) {
        struct pollfd one = {fd, POLLIN, 0};
        if (poll(&one, 1, 100) <= 0) {
            continue;
        }
        const ssize_t got = read(fd, buf, sizeof buf);
        if (got <= 0) {
            break;
        }
        text.append(buf, static_cast<size_t>(got));
    }
    return text;
}

bool write_all(int fd, const std::string &text)
{
    return send(fd, text.data(), text.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
}

bool ended(int fd)
{
    const auto end = Clock::now() + std::chrono::milliseconds(DEADLINE_MS);
    char buf[4096];

    while (Clock::now() < end) {
        struct pollfd one = {fd, POLLIN, 0};
        if (poll(&one, 1, 100) > 0 && read(fd, buf, sizeof buf) <= 0) {
            return true;
        }
    }
    return false;
}
