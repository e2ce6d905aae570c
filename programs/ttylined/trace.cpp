// A trace that is not read must not grow: beyond a limit lines are given up,
// and their number takes their place once there is room again.
#include "programs/ttylined/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>

constexpr std::size_t PENDING_MAX = std::size_t{1024} * 1024;
constexpr mode_t FILE_MODE = 0600;

static text_out g_file;
static text_out *g_out;
static std::size_t g_lost;

// In UTC, as the logs of the libraries.
static std::string time_stamp()
{
    timespec now = {};
    tm parts = {};
    char text[80];

    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &parts);
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ ",
                  parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                  parts.tm_hour, parts.tm_min, parts.tm_sec,
                  now.tv_nsec / 1000000);
    return text;
}

bool trace_open(const std::string &path, std::string &error)
{
    g_file.fd =
        open(path.c_str(),
             O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_NONBLOCK | O_CLOEXEC,
             FILE_MODE);
    if (g_file.fd < 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    trace_to(g_file);
    return true;
}

void trace_to(text_out &out)
{
    g_out = &out;
}

bool trace_wanted()
{
    return g_out != nullptr;
}

void trace_line(const std::string &text)
{
    std::string lines;

    if (g_out == nullptr) {
        return;
    }
    text_out_flush(*g_out);
    if (g_out->pending.size() > PENDING_MAX) {
        g_lost++;
        return;
    }
    if (g_lost > 0) {
        lines = time_stamp() + "note " + std::to_string(g_lost) +
                " lines lost, the trace was not read\n";
        g_lost = 0;
    }
    text_out_add(*g_out, lines + time_stamp() + text + "\n");
}

void trace_note(const std::string &text)
{
    trace_line("note " + text);
}

text_out &trace_file()
{
    return g_file;
}
