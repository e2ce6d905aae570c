#include "programs/shared/info_file.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Far more than all keys at their longest.
constexpr std::size_t MOST_BYTES = std::size_t{256} * 1024;
static const char SESSION_KEY[] = "SESSIONID";

static bool is_plain(int fd)
{
    struct stat status = {};

    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

static bool read_all(int fd, std::string &content)
{
    char bytes[4096];

    while (content.size() <= MOST_BYTES) {
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got == 0) {
            return true;
        }
        if (got < 0 && errno != EINTR) {
            return false;
        }
        content.append(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return false;
}

// A bare line feed was not written by the library and belongs to the value; a
// last line that says "null" and has no end counts as no value.
static std::string value_of(const std::string &text)
{
    std::string value = text.substr(0, text.find('\0'));
    const std::size_t length = value.size();

    if (value == "\r\n" || value == "null") {
        return "";
    }
    if (length >= 2 && value[length - 2] == '\r') {
        return value.substr(0, length - 2);
    }
    return value;
}

// The first line of a key counts.
static void take_line(const std::string &line, line_values &values)
{
    const std::size_t equals = line.find('=');

    if (equals != std::string::npos) {
        values.of.emplace(line.substr(0, equals),
                          value_of(line.substr(equals + 1)));
    }
}

static void take_lines(const std::string &content, line_values &values)
{
    for (std::size_t at = 0; at < content.size();) {
        const std::size_t feed = content.find('\n', at);
        const std::size_t end =
            feed == std::string::npos ? content.size() : feed + 1;
        take_line(content.substr(at, end - at), values);
        at = end;
    }
    values.whole = content.empty() || content.back() == '\n';
}

bool read_info(const std::string &path, line_values &values)
{
    std::string content;

    values = {};
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY |
                                          O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT;
    }
    const bool read = is_plain(fd) && read_all(fd, content);
    close(fd);
    if (read) {
        take_lines(content, values);
    }
    return read;
}

bool plain_or_absent(const std::string &path)
{
    struct stat status = {};

    return lstat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

static std::string value_in(const line_values &values, const std::string &key)
{
    const auto found = values.of.find(key);

    return found == values.of.end() ? "" : found->second;
}

// A session that began or ended meanwhile has replaced the whole file.
static bool replaced_by_a_session(const line_values &before,
                                  const line_values &after,
                                  const stored_pairs &stored)
{
    const std::string session = value_in(after, SESSION_KEY);

    for (const auto &[key, value] : stored) {
        if (key == SESSION_KEY && value == session) {
            return false;
        }
    }
    return session != value_in(before, SESSION_KEY);
}

std::string missing_after(const line_values &before, const line_values &after,
                          const stored_pairs &stored)
{
    for (const auto &[key, value] : stored) {
        if (value_in(after, key) != value) {
            return key;
        }
    }
    if (replaced_by_a_session(before, after, stored)) {
        return "";
    }
    for (const auto &[key, value] : before.of) {
        if (after.of.count(key) == 0) {
            return key;
        }
    }
    return before.whole && !after.whole ? "the end of the file" : "";
}
