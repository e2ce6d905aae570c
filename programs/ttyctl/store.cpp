#include "programs/ttyctl/store.h"

#include <cerrno>
#include <cstdlib>

#include <dirent.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "programs/shared/parse.h"
#include "programs/shared/runtime_path.h"

constexpr std::size_t INFO_PATH_SIZE = 128;
constexpr std::size_t SOCKET_PATH_SIZE = 100;

static const char STORE_DIRECTORY[] = "/mng/tty";
static const char INFO_NAME[] = ".tty_info_";

bool parse_line(const std::string &text, unsigned int &line)
{
    return parse_number(text, 0, TTY_LINES - 1, line) ||
           parse_number(text, TTY_LINE_RESERVED0, TTY_LINE_RESERVED1, line);
}

static std::string info_below(const std::string &prefix, unsigned int line)
{
    return prefix + STORE_DIRECTORY + "/" + INFO_NAME + std::to_string(line);
}

static std::string instance0_info()
{
    const char *directory = std::getenv("TMPDIR");

    if (directory == nullptr) {
        return "";
    }
    const std::string own =
        std::string(directory).substr(0, INFO_PATH_SIZE - 1);
    const std::size_t slash = own.rfind('/');
    if (slash == std::string::npos) {
        return "";
    }
    return info_below(own.substr(0, slash + 1) + "0", 0);
}

std::string info_to_read(unsigned int line)
{
    return line == 0 ? instance0_info() : info_to_write(line);
}

std::string info_to_write(unsigned int line)
{
    return info_below(runtime_path(""), line);
}

std::string lock_of(const std::string &info)
{
    return info + ".lock";
}

std::string admin_socket()
{
    return runtime_path("/mng/tty/.tty_rl");
}

std::string library_log()
{
    return runtime_path("/mng/tty/.tty_lib_dump.txt");
}

bool info_fits(const std::string &info)
{
    return info.size() < INFO_PATH_SIZE;
}

bool socket_fits(const std::string &socket)
{
    return socket.size() < SOCKET_PATH_SIZE;
}

// Line 0 is not taken from here: a get reads another instance's file.
static void add_line(std::set<unsigned int> &lines, const std::string &name)
{
    const std::string start = INFO_NAME;
    unsigned int line = 0;

    if (name.compare(0, start.size(), start) != 0) {
        return;
    }
    const std::string number = name.substr(start.size());
    if (parse_line(number, line) && line != 0 &&
        number == std::to_string(line)) {
        lines.insert(line);
    }
}

bool find_lines(std::set<unsigned int> &lines, std::string &directory)
{
    directory = runtime_path(STORE_DIRECTORY);
    DIR *stream = opendir(directory.c_str());
    if (stream == nullptr) {
        return false;
    }
    errno = 0;
    const dirent *entry = nullptr;
    while ((entry = readdir(stream)) != nullptr) {
        add_line(lines, entry->d_name);
    }
    const int error = errno;
    closedir(stream);
    const std::string first = info_to_read(0);
    if (!first.empty() && access(first.c_str(), F_OK) == 0) {
        lines.insert(0);
    }
    errno = error;
    return error == 0;
}
