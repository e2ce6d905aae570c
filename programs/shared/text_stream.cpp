/*
 * Descriptors may be shared with other programs, so they stay in the mode in
 * which they came. Room is asked for before each write instead, and a write
 * is never longer than a pipe takes in one piece: it cannot wait.
 */
#include "programs/shared/text_stream.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>

#include <poll.h>
#include <unistd.h>

static constexpr std::size_t pending_max = std::size_t{1024} * 1024;
static constexpr std::size_t read_size = 4096;

static bool has_room(int fd)
{
    pollfd ask = {fd, POLLOUT, 0};

    return poll(&ask, 1, 0) == 1;
}

void text_out_flush(text_out &out)
{
    std::size_t done = 0;

    while (done < out.pending.size() && has_room(out.fd)) {
        std::size_t length = out.pending.size() - done;
        if (length > PIPE_BUF) {
            length = PIPE_BUF;
        }
        const ssize_t ret = write(out.fd, out.pending.data() + done, length);
        if (ret > 0) {
            done += static_cast<std::size_t>(ret);
        } else if (ret < 0 && errno == EAGAIN) {
            break;
        } else if (ret == 0 || errno != EINTR) {
            /* Nobody reads this any more, or the disk is full. */
            done = out.pending.size();
        }
    }
    out.pending.erase(0, done);
}

void text_out_add(text_out &out, const std::string &text)
{
    if (out.fd < 0) {
        return;
    }
    out.pending += text;
    text_out_flush(out);
}

void text_out_add_line(text_out &out, const std::string &line)
{
    if (out.fd < 0) {
        return;
    }
    text_out_flush(out);
    if (out.pending.size() > pending_max) {
        out.lost++;
        return;
    }
    if (out.lost > 0) {
        out.pending += time_stamp() + " note " + std::to_string(out.lost) +
                       " lines lost, the trace was not read\n";
        out.lost = 0;
    }
    text_out_add(out, line + "\n");
}

static void strip_return(std::string &line)
{
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
}

/* No line feed is held: a line that is still growing, or the last one. */
static text_result unfinished_line(text_in &in, bool at_end, std::string &line)
{
    if (in.skipping) {
        in.held.clear();
        return text_result::none;
    }
    if (in.held.size() > text_line_max) {
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
    if (line.size() > text_line_max) {
        return text_result::too_long;
    }
    strip_return(line);
    return text_result::line;
}

bool text_in_read(text_in &in, int fd)
{
    char bytes[read_size];
    const ssize_t ret = read(fd, bytes, sizeof bytes);

    if (ret > 0) {
        in.held.append(bytes, static_cast<std::size_t>(ret));
        return true;
    }
    return ret < 0 && (errno == EAGAIN || errno == EINTR);
}

std::string time_stamp()
{
    timespec now = {};
    tm parts = {};
    char text[80];

    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &parts);
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ",
                  parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                  parts.tm_hour, parts.tm_min, parts.tm_sec,
                  now.tv_nsec / 1000000);
    return text;
}
