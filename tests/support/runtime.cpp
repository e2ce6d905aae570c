#include "tests/support/runtime.h"

#include <regex.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/descriptors.h"
#include "tests/support/fault.h"

// A race in a child ends that child instead of only being told.
extern "C" const char *__tsan_default_options(void);
extern "C" const char *__tsan_default_options(void)
{
    return "halt_on_error=1";
}

namespace support
{

std::string slurp(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;

    EXPECT_TRUE(file.is_open()) << "cannot read " << path;
    content << file.rdbuf();
    return content.str();
}

void spill(const std::string &path, const std::string &content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);

    file << content;
    file.close();
    EXPECT_TRUE(file.good()) << "cannot write " << path;
}

bool exists(const std::string &path)
{
    struct stat status;

    return lstat(path.c_str(), &status) == 0;
}

// Expressions are the C library's: std::regex costs seconds to compile in every
// file that has one, and each test, a process of its own, makes them anew.
static bool begins_with_stamp(const std::string &line)
{
    static regex_t stamp;
    static const int status =
        regcomp(&stamp,
                "^(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec)"
                " [0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9] ",
                REG_EXTENDED | REG_NOSUB);

    return status == 0 && regexec(&stamp, line.c_str(), 0, nullptr, 0) == 0;
}

std::string without_stamp(const std::string &line)
{
    if (!begins_with_stamp(line)) {
        ADD_FAILURE() << "no time stamp: " << line;
        return line;
    }
    return line.substr(strlen("Jan 01 00:00:00 "));
}

std::string unlined(const std::string &message)
{
    static regex_t line;
    static const int status =
        regcomp(&line, "[( ]line:? ([1-9][0-9]*)", REG_EXTENDED);
    std::string result;
    size_t done = 0;
    regmatch_t found[2];

    while (status == 0 &&
           regexec(&line, message.c_str() + done, 2, found, 0) == 0) {
        result.append(message, done, static_cast<size_t>(found[1].rm_so));
        result += "N";
        done += static_cast<size_t>(found[1].rm_eo);
    }
    return result.append(message, done);
}

std::string without_stamp_and_pid(const std::string &line, pid_t pid)
{
    const std::string rest = without_stamp(line);
    const std::string prefix = " " + std::to_string(pid) + ":";

    if (rest.compare(0, prefix.size(), prefix) != 0) {
        ADD_FAILURE() << "no process id " << pid << ": " << line;
        return rest;
    }
    return rest.substr(prefix.size());
}

std::vector<std::string> lines_of(const std::string &path)
{
    std::vector<std::string> lines;

    if (!exists(path)) {
        return lines;
    }
    const std::string content = slurp(path);
    for (size_t from = 0; from < content.size();) {
        const size_t feed = content.find('\n', from);
        const size_t end =
            feed == std::string::npos ? content.size() : feed + 1;
        lines.push_back(content.substr(from, end - from));
        from = end;
    }
    return lines;
}

void nothing_left::SetUp()
{
    // An instrumented program has made calls of its own by now.
    fault::reset();
    descriptors_before = open_descriptors();
    children_before = children();
}

void nothing_left::TearDown()
{
    fault::reset();
    EXPECT_EQ(open_descriptors(), descriptors_before);
    EXPECT_EQ(children(), children_before);
}

void runtime_test::SetUp()
{
    char directory[] = "/tmp/ttyline-test-XXXXXX";

    ASSERT_NE(mkdtemp(directory), nullptr);
    runtime_dir = directory;
    ASSERT_EQ(setenv("TMPDIR", directory, 1), 0);
    umask(022);
    nothing_left::SetUp();
}

void runtime_test::TearDown()
{
    std::error_code ignored;

    nothing_left::TearDown();
    std::filesystem::remove_all(runtime_dir, ignored);
}

std::string runtime_test::path(const std::string &name) const
{
    return runtime_dir + name;
}

void runtime_test::make_directories() const
{
    std::filesystem::create_directories(path("/mng/tty"));
}

std::vector<std::string> runtime_test::tty_log() const
{
    std::vector<std::string> log = lines_of(path("/mng/tty/.tty_lib_dump.txt"));

    for (std::string &line : log) {
        line = without_stamp(line);
    }
    return log;
}

std::vector<std::string> runtime_test::vc_log() const
{
    std::vector<std::string> log = lines_of(path("/mng/tty/.vc_dump.txt"));

    for (std::string &line : log) {
        line = without_stamp_and_pid(line, getpid());
    }
    return log;
}

} // namespace support
