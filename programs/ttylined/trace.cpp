// A trace that is not read must not grow: beyond a limit lines are given up,
// and their number takes their place once there is room again. Nor must a file:
// it is put aside when it is full, and takes the place of the one that was put
// aside before.
#include "programs/ttylined/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr std::size_t PENDING_MAX = std::size_t{1024} * 1024;
constexpr mode_t FILE_MODE = 0600;

static text_out g_file;
static std::string g_path;
static std::size_t g_room; // left in a plain file
static bool g_plain;
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

static void note_room()
{
    struct stat status = {};

    g_plain = fstat(g_file.fd, &status) == 0 && S_ISREG(status.st_mode);
    const std::size_t size = static_cast<std::size_t>(status.st_size);
    g_room = size < TRACE_FILE_MAX ? TRACE_FILE_MAX - size : 0;
}

// The file that is open stays when the path leads to none. A link that somebody
// has put there does not lead to one.
bool trace_open(const std::string &path, std::string &error)
{
    const int fd = open(path.c_str(),
                        O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_NONBLOCK |
                            O_NOFOLLOW | O_CLOEXEC,
                        FILE_MODE);

    if (fd < 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    if (g_file.fd >= 0) {
        text_out_flush(g_file);
        close(g_file.fd);
    }
    g_file.fd = fd;
    g_path = path;
    note_room();
    trace_to(g_file);
    return true;
}

void trace_reopen()
{
    std::string error;

    if (!g_path.empty() && !trace_open(g_path, error)) {
        trace_note(error);
    }
}

// Where it cannot be put aside it is emptied: bounded it is in any case.
static void begin_new_file()
{
    const std::string aside = g_path + ".1";
    std::string error;

    if (rename(g_path.c_str(), aside.c_str()) != 0 ||
        !trace_open(g_path, error)) {
        const int ignored = ftruncate(g_file.fd, 0);
        static_cast<void>(ignored);
    }
    note_room();
}

static void take_room(std::size_t length)
{
    if (g_out != &g_file || !g_plain) {
        return;
    }
    if (length > g_room) {
        begin_new_file();
    }
    g_room -= length < g_room ? length : g_room;
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
    lines += time_stamp() + text + "\n";
    take_room(lines.size());
    text_out_add(*g_out, lines);
}

void trace_note(const std::string &text)
{
    trace_line("note " + text);
}

text_out &trace_file()
{
    return g_file;
}
