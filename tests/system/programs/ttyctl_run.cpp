#include "tests/system/programs/ttyctl_run.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/wait.h"

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;

    content << file.rdbuf();
    return content.str();
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);

    file << content;
    file.close();
    ASSERT_TRUE(file.good()) << path;
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

void TtyctlTest::SetUp()
{
    char name[] = "/tmp/ttyctl_test.XXXXXX";

    ASSERT_NE(mkdtemp(name), nullptr);
    root = name;
    runtime = root;
    std::filesystem::create_directories(root + "/mng/tty");
}

void TtyctlTest::TearDown()
{
    std::error_code ignored;

    for (const pid_t pid : started) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    std::filesystem::remove_all(root, ignored);
}

std::string TtyctlTest::path(const std::string &name) const
{
    return runtime + "/mng/tty/" + name;
}

std::string TtyctlTest::info(unsigned int line) const
{
    return path(".tty_info_" + std::to_string(line));
}

void TtyctlTest::store(unsigned int line, const std::string &content) const
{
    write_file(info(line), content);
}

[[noreturn]] static void become_ttyctl(words arguments, pid_t parent)
{
    std::vector<char *> argv;

    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(126);
    }
    arguments.insert(arguments.begin(), TTYCTL_PATH);
    for (std::string &word : arguments) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    execv(TTYCTL_PATH, argv.data());
    _exit(127);
}

static void redirect(const std::string &path, int to)
{
    dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600),
         to);
}

pid_t TtyctlTest::start(const words &arguments, int out_fd)
{
    const pid_t parent = getpid();
    const pid_t pid = fork();

    if (pid == 0) {
        setenv("TMPDIR", runtime.c_str(), 1);
        /* An unreadable path of a test is relative to its directory. */
        if (chdir(root.c_str()) != 0) {
            _exit(125);
        }
        redirect(root + "/out", STDOUT_FILENO);
        redirect(root + "/err", STDERR_FILENO);
        if (out_fd >= 0) {
            dup2(out_fd, STDOUT_FILENO);
        }
        become_ttyctl(arguments, parent);
    }
    started.push_back(pid);
    return pid;
}

std::string TtyctlTest::output() const
{
    return read_file(root + "/out");
}

outcome TtyctlTest::finish(pid_t pid)
{
    outcome result;

    const int status = support::wait_child(pid, patience_ms);
    started.erase(std::remove(started.begin(), started.end(), pid),
                  started.end());
    EXPECT_NE(status, -1) << "still running";
    if (status != -1 && WIFEXITED(status)) {
        result.status = WEXITSTATUS(status);
    } else if (status != -1 && WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    result.out = output();
    result.err = read_file(root + "/err");
    return result;
}

outcome TtyctlTest::run(const words &arguments)
{
    return finish(start(arguments));
}

bool take_lock(const std::string &file)
{
    struct flock lock = {};

    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0;
}

holder::holder(const std::string &file, const std::string &name)
{
    int taken[2];
    int end[2];
    char byte = 0;

    EXPECT_EQ(pipe2(taken, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(end, O_CLOEXEC), 0);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, name.c_str());
        close(end[1]);
        if (getppid() != parent || !take_lock(file) ||
            write(taken[1], "t", 1) != 1) {
            _exit(1);
        }
        _exit(read(end[0], &byte, 1) == 0 ? 0 : 1);
    }
    close(taken[1]);
    close(end[0]);
    EXPECT_EQ(read(taken[0], &byte, 1), 1) << "not locked: " << file;
    close(taken[0]);
    end_ = end[1];
}

holder::~holder()
{
    if (pid_ > 0) {
        let_go();
    }
}

/* By a signal: another holder's child may have inherited the pipe's end. */
void holder::let_go()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    close(end_);
    pid_ = -1;
}

static sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {};

    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

listener::listener(const std::string &path, int backlog) : path_(path)
{
    const sockaddr_un address = address_of(path);

    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(
        bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address),
        0);
    EXPECT_EQ(listen(fd_, backlog), 0);
}

listener::~listener()
{
    stop();
}

void listener::stop()
{
    for (const int client : clients_) {
        close(client);
    }
    clients_.clear();
    if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = -1;
}

void listener::fill()
{
    const sockaddr_un address = address_of(path_);

    for (;;) {
        const int client =
            socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        clients_.push_back(client);
        if (connect(client, reinterpret_cast<const sockaddr *>(&address),
                    sizeof address) != 0) {
            EXPECT_EQ(errno, EAGAIN);
            return;
        }
    }
}

static bool readable(int fd)
{
    pollfd ask = {fd, POLLIN, 0};

    return poll(&ask, 1, patience_ms) == 1;
}

int listener::take() const
{
    return readable(fd_) ? accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

std::string listener::request() const
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    unsigned char byte = 0;

    const int fd = take();
    while (fd >= 0 && readable(fd) && read(fd, &byte, 1) == 1) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    close(fd);
    return text;
}
