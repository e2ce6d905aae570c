#include "tests/system/programs/ttylined_run.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using steady = std::chrono::steady_clock;

constexpr auto PATIENCE = std::chrono::seconds(20);

unique_fd &unique_fd::operator=(unique_fd &&other) noexcept
{
    if (this != &other) {
        reset();
        fd = other.fd;
        other.fd = -1;
    }
    return *this;
}

unique_fd::~unique_fd()
{
    reset();
}

void unique_fd::reset()
{
    if (fd >= 0) {
        close(fd);
    }
    fd = -1;
}

static bool wait_for(int fd, short events, steady::time_point deadline)
{
    pollfd ask = {fd, events, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - steady::now());

    return left.count() > 0 &&
           poll(&ask, 1, static_cast<int>(left.count())) == 1;
}

ttylined_run::ttylined_run()
{
    char name[] = "/tmp/ttylined_test.XXXXXX";

    if (mkdtemp(name) == nullptr) {
        std::abort();
    }
    directory = name;
}

ttylined_run::~ttylined_run()
{
    std::error_code ignored;

    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    std::filesystem::remove_all(directory, ignored);
}

std::string ttylined_run::socket_path() const
{
    return directory + "/mng/tty/inetd/.qv_inetd";
}

std::string ttylined_run::admin_path() const
{
    return directory + "/mng/tty/.tty_rl";
}

std::string ttylined_run::control_path() const
{
    return directory + "/control";
}

struct child_ends {
    int in, out, err, ready;
};

[[noreturn]] static void run_child(const ttylined_run &run,
                                   const run_options &options,
                                   const child_ends &ends, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(126);
    }
    dup2(ends.in, STDIN_FILENO);
    dup2(ends.out, STDOUT_FILENO);
    dup2(ends.err, STDERR_FILENO);
    // Descriptors stay open in the child only when they are duplicates.
    const int ready = fcntl(ends.ready, F_DUPFD, 3);
    const std::string ready_text = std::to_string(ready);
    setenv("TMPDIR", run.directory.c_str(), 1);
    if (options.open_files > 0) {
        const auto files = static_cast<rlim_t>(options.open_files);
        const rlimit limit = {files, files};
        setrlimit(RLIMIT_NOFILE, &limit);
    }

    std::vector<std::string> words = {TTYLINED_PATH};
    if (options.ready) {
        words.insert(words.end(), {"--ready-fd", ready_text});
    }
    words.insert(words.end(), options.arguments.begin(),
                 options.arguments.end());
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    execv(TTYLINED_PATH, argv.data());
    _exit(127);
}

bool ttylined_run::start(const run_options &options)
{
    int pipes[4][2];

    for (auto &ends : pipes) {
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return false;
        }
    }
    const child_ends ends = {pipes[0][0], pipes[1][1], pipes[2][1],
                             pipes[3][1]};
    const pid_t parent = getpid();
    pid = fork();
    if (pid == 0) {
        run_child(*this, options, ends, parent);
    }
    in = unique_fd(pipes[0][1]);
    out = unique_fd(pipes[1][0]);
    err = unique_fd(pipes[2][0]);
    const unique_fd ready(pipes[3][0]);
    for (int end : {ends.in, ends.out, ends.err, ends.ready}) {
        close(end);
    }
    char byte = 0;
    return pid > 0 && options.ready &&
           wait_for(ready.fd, POLLIN, steady::now() + PATIENCE) &&
           read(ready.fd, &byte, 1) == 1 && byte == '\n';
}

int ttylined_run::exit_status()
{
    int status = 0;
    const unique_fd watch(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));

    if (!wait_for(watch.fd, POLLIN, steady::now() + PATIENCE)) {
        return -1;
    }
    waitpid(pid, &status, 0);
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int wait_for_child(pid_t child)
{
    int status = 0;
    const unique_fd watch(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));

    if (!wait_for(watch.fd, POLLIN, steady::now() + PATIENCE)) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        return -1;
    }
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int in_child(const ttylined_run &run, const std::function<bool()> &work)
{
    const pid_t parent = getpid();
    const pid_t child = fork();

    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("TMPDIR", run.directory.c_str(), 1);
        _exit(getppid() == parent && work() ? 0 : 1);
    }
    return wait_for_child(child);
}

unique_fd connect_unix(const std::string &path)
{
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};

    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return unique_fd();
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    if (connect(fd.fd, reinterpret_cast<const sockaddr *>(&address),
                sizeof address) != 0) {
        return unique_fd();
    }
    return fd;
}

bool send_bytes(int fd, const void *bytes, std::size_t length)
{
    const auto deadline = steady::now() + PATIENCE;
    const char *from = static_cast<const char *>(bytes);

    while (length > 0) {
        if (!wait_for(fd, POLLOUT, deadline)) {
            return false;
        }
        const ssize_t ret = send(fd, from, length, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (ret < 0 && errno != EAGAIN) {
            return false;
        }
        if (ret > 0) {
            from += ret;
            length -= static_cast<std::size_t>(ret);
        }
    }
    return true;
}

bool send_record(const unique_fd &fd, const tty_cmsg &record)
{
    return send_bytes(fd.fd, &record, sizeof record);
}

// As the session service reads: one call, and less than all is a failure.
std::optional<tty_cmsg> read_record(const unique_fd &fd)
{
    tty_cmsg record = {};

    if (!wait_for(fd.fd, POLLIN, steady::now() + PATIENCE) ||
        recv(fd.fd, &record, sizeof record, MSG_DONTWAIT) !=
            static_cast<ssize_t>(sizeof record)) {
        return std::nullopt;
    }
    return record;
}

bool waits_for_end(const unique_fd &fd)
{
    const auto deadline = steady::now() + PATIENCE;
    char bytes[4096];

    while (wait_for(fd.fd, POLLIN, deadline)) {
        if (recv(fd.fd, bytes, sizeof bytes, MSG_DONTWAIT) <= 0) {
            return true;
        }
    }
    return false;
}

// Byte by byte, so that what follows the line stays for the next call.
std::string read_until(const unique_fd &fd, const std::string &text)
{
    const auto deadline = steady::now() + PATIENCE;
    std::string all;
    std::string line;

    while (wait_for(fd.fd, POLLIN, deadline)) {
        char byte = 0;
        if (read(fd.fd, &byte, 1) != 1) {
            break;
        }
        line += byte;
        if (byte == '\n') {
            all += line;
            if (line.find(text) != std::string::npos) {
                return all;
            }
            line.clear();
        }
    }
    return all + line;
}

static bool write_text(int fd, const std::string &text)
{
    return write(fd, text.data(), text.size()) ==
           static_cast<ssize_t>(text.size());
}

static std::string last_line_of(const std::string &text)
{
    const std::size_t before =
        text.size() < 2 ? std::string::npos : text.rfind('\n', text.size() - 2);

    return text.substr(before == std::string::npos ? 0 : before + 1);
}

static bool is_answer(const std::string &text)
{
    return !text.empty() && text.back() == '\n' &&
           (last_line_of(text) == "ok\n" ||
            last_line_of(text).compare(0, 7, "error: ") == 0);
}

std::string command(const unique_fd &to, const unique_fd &from,
                    const std::string &line)
{
    const auto deadline = steady::now() + PATIENCE;
    std::string reply;

    if (!write_text(to.fd, line + "\n")) {
        return "cannot write";
    }
    while (!is_answer(reply)) {
        char byte = 0;
        if (!wait_for(from.fd, POLLIN, deadline) ||
            read(from.fd, &byte, 1) != 1) {
            return "no end: " + reply;
        }
        reply += byte;
    }
    if (last_line_of(reply) == "ok\n") {
        reply.resize(reply.size() - 3);
    }
    return reply;
}

int take_line(const unique_fd &fd, int protocol, int sockfd, int accept_id)
{
    if (!send_record(fd, accept_report(protocol, sockfd, accept_id))) {
        return -1000;
    }
    const std::optional<tty_cmsg> answer = read_record(fd);
    if (!answer || answer->vc_flag != 0x001 || answer->sockfd != sockfd ||
        answer->accept_id != accept_id) {
        return -1000;
    }
    return answer->ttyno;
}

bool settled(const unique_fd &fd)
{
    const tty_cmsg request = listen_request(9, 6);

    if (!send_record(fd, request)) {
        return false;
    }
    const std::optional<tty_cmsg> answer = read_record(fd);
    return answer && answer->vc_flag == 0x008 && answer->port == 9;
}

static std::vector<std::string> words_of(const std::string &line)
{
    std::istringstream text(line);
    std::vector<std::string> words;

    for (std::string word; text >> word;) {
        words.push_back(word);
    }
    return words;
}

cells column(const std::string &table, const std::string &name)
{
    std::istringstream text(table);
    std::string line;
    cells found;

    std::getline(text, line);
    const std::vector<std::string> names = words_of(line);
    const auto at = std::find(names.begin(), names.end(), name);
    EXPECT_NE(at, names.end()) << "no column " << name << " in:\n" << table;
    const auto index = static_cast<std::size_t>(at - names.begin());
    while (std::getline(text, line)) {
        const std::vector<std::string> words = words_of(line);
        found.push_back(index < words.size() ? words[index] : "");
    }
    return found;
}
