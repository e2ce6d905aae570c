#include "tests/system/programs/ttyctl_run.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
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
        // An unreadable path of a test is relative to its directory.
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

    const int status = support::wait_child(pid, PATIENCE_MS);
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

std::vector<std::string> split_lines(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> result;
    std::string line;

    while (std::getline(stream, line)) {
        result.push_back(line);
    }
    return result;
}

void expect_done(const outcome &result)
{
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

void expect_message(const outcome &result, int status, const std::string &part)
{
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(contains(result.err, part)) << result.err;
    EXPECT_EQ(result.err.rfind("ttyctl: ", 0), 0U) << result.err;
    EXPECT_EQ(split_lines(result.err).size(), 1U) << result.err;
}

words with_timeout(const char *seconds, const words &arguments)
{
    words all = {"--timeout", seconds};

    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

// The columns of a row, by the places of their names in the first line.
static std::vector<std::string> cells_of(const std::string &header,
                                         const std::string &row)
{
    std::vector<std::string> cells;
    std::vector<std::size_t> starts = {0};

    for (const char *name :
         {"USER", "PEER", "DEVICE", "PROTOCOL", "IDLE", "STATE"}) {
        starts.push_back(header.find(name));
        EXPECT_NE(starts.back(), std::string::npos) << header;
    }
    for (std::size_t i = 0; i < starts.size(); i++) {
        const std::size_t end =
            i + 1 < starts.size() ? starts[i + 1] : row.size();
        std::string cell = starts[i] < row.size()
                               ? row.substr(starts[i], end - starts[i])
                               : "";
        cell.erase(0, std::min(cell.find_first_not_of(' '), cell.size()));
        cell.erase(cell.find_last_not_of(' ') + 1);
        cells.push_back(cell);
    }
    return cells;
}

rows rows_of(const std::string &table)
{
    const std::vector<std::string> lines = split_lines(table);
    rows found;

    for (std::size_t i = 1; i < lines.size(); i++) {
        found.push_back(cells_of(lines[0], lines[i]));
    }
    return found;
}

operator_terminal::operator_terminal()
{
    master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(grantpt(master), 0);
    EXPECT_EQ(unlockpt(master), 0);
    char name[64] = {};
    EXPECT_EQ(ptsname_r(master, name, sizeof name), 0);
    slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(slave, 0);
}

operator_terminal::~operator_terminal()
{
    close(master);
    close(slave);
}

std::string operator_terminal::shown(const std::string &text, int times) const
{
    std::string all;
    int found = 0;
    char byte = 0;
    pollfd ask = {master, POLLIN, 0};

    while (found < times && poll(&ask, 1, PATIENCE_MS) == 1 &&
           read(master, &byte, 1) == 1) {
        all += byte;
        if (all.size() >= text.size() &&
            all.compare(all.size() - text.size(), text.size(), text) == 0) {
            found++;
        }
    }
    EXPECT_EQ(found, times) << all;
    return all;
}

opening::opening(const std::string &file)
    : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    EXPECT_GE(inotify_add_watch(fd_, file.c_str(), IN_OPEN), 0);
}

opening::~opening()
{
    close(fd_);
}

bool opening::seen() const
{
    pollfd ask = {fd_, POLLIN, 0};

    return poll(&ask, 1, PATIENCE_MS) == 1;
}
