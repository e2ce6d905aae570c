#include "programs/ttylined/text_in.h"

#include <cerrno>

#include <unistd.h>

constexpr std::size_t READ_SIZE = 4096;

static void strip_return(std::string &line)
{
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
}

// No line feed is held: a line that is still growing, or the last one.
static text_result unfinished_line(text_in &in, bool at_end, std::string &line)
{
    if (in.skipping) {
        in.held.clear();
        return text_result::none;
    }
    if (in.held.size() > TEXT_LINE_MAX) {
        in.held.clear();
        in.skipping = true;
        return text_result::too_long;
    }
    if (!at_end || in.held.empty()) {
        return text_result::none;
    }
    line.swap(in.held);
    in.held.clear();
    strip_return(line);
    return text_result::line;
}

text_result text_in_next(text_in &in, bool at_end, std::string &line)
{
    std::size_t end = in.held.find('\n');

    if (end != std::string::npos && in.skipping) {
        in.held.erase(0, end + 1);
        in.skipping = false;
        end = in.held.find('\n');
    }
    if (end == std::string::npos) {
        return unfinished_line(in, at_end, line);
    }
    line = in.held.substr(0, end);
    in.held.erase(0, end + 1);
    if (line.size() > TEXT_LINE_MAX) {
        return text_result::too_long;
    }
    strip_return(line);
    return text_result::line;
}

bool text_in_read(text_in &in, int fd)
{
    char bytes[READ_SIZE];
    const ssize_t ret = read(fd, bytes, sizeof bytes);

    if (ret > 0) {
        in.held.append(bytes, static_cast<std::size_t>(ret));
        return true;
    }
    return ret < 0 && (errno == EAGAIN || errno == EINTR);
}
