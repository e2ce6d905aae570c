// Dump logs of both libraries with texts of any length and bytes, at any time
// of the clock, on files of any size; the calendar against the C library's.
//
// Input: time (8 bytes), year (4), size of the file (4), what is in the way
// (1), form of the message (1), number (2), text.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include <ttyline/tty.h>
#include <ttyline/vc.h>

#include "common/timestamp.h"
#include "tests/fuzz/fuzz.h"

constexpr time_t CYCLE = time_t{146097} * 86400;
constexpr uint32_t YEARS_PER_CYCLE = 400;
constexpr size_t TEXT_LIMIT = 3000;
// A message and the terminator in the session service's log; the whole line
// in the line library's.
constexpr size_t MESSAGE_LIMIT = 1023;
constexpr off_t FILE_LIMIT = 1048576;
constexpr uint32_t SIZES_AROUND_LIMIT = 16;

// Bits of what is in the way.
constexpr uint8_t TRACE = 0x01;
constexpr uint8_t TRACE_WANTED = 0x02;
constexpr uint8_t CANNOT_OPEN = 0x04;
constexpr uint8_t NO_DIRECTORY = 0x08;
constexpr uint8_t NEAR_LIMIT = 0x10;

// What the libraries see while one message is written.
static bool staged;
static time_t now;
static uint8_t in_the_way;
static std::vector<std::string> system_log;

extern "C" {
time_t __real_time(time_t *out);
time_t __wrap_time(time_t *out);
int __real_access(const char *path, int mode);
int __wrap_access(const char *path, int mode);
int __real_faccessat(int at, const char *path, int mode, int flags);
int __wrap_faccessat(int at, const char *path, int mode, int flags);
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
}

time_t __wrap_time(time_t *out)
{
    return staged ? now : __real_time(out);
}

// The two switches: one as the input says, never the console.
int __wrap_faccessat(int at, const char *path, int mode, int flags)
{
    if (!staged) {
        return __real_faccessat(at, path, mode, flags);
    }
    errno = ENOENT;
    return -1;
}

int __wrap_access(const char *path, int mode)
{
    if (!staged) {
        return __real_access(path, mode);
    }
    const bool trace = strcmp(path, "/data/.tty_lib_debug") == 0;
    errno = ENOENT;
    return trace && (in_the_way & TRACE_WANTED) != 0 ? 0 : -1;
}

int __wrap_open(const char *path, int flags, ...)
{
    va_list list;

    va_start(list, flags);
    const mode_t mode = va_arg(list, mode_t);
    va_end(list);
    if (staged && (in_the_way & CANNOT_OPEN) != 0) {
        errno = (in_the_way & NO_DIRECTORY) != 0 ? ENOENT : EACCES;
        return -1;
    }
    return __real_open(path, flags, mode);
}

void printk_syslog_ext(int, const char *, const char *, int, const char *fmt,
                       ...)
{
    char text[2 * TEXT_LIMIT];
    va_list args;

    va_start(args, fmt);
    (void)vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    system_log.emplace_back(text);
}

static std::string reference_stamp(time_t t)
{
    static const char months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    struct tm parts;
    char out[128];

    if (t < 0) {
        return std::to_string(t) + " ";
    }
    if (gmtime_r(&t, &parts) == nullptr) {
        // Its year does not fit. Whole cycles of the calendar change no date.
        t %= CYCLE;
        gmtime_r(&t, &parts);
    }
    (void)snprintf(out, sizeof out, "%.3s %02d %02d:%02d:%02d ",
                   months + ptrdiff_t{3} * parts.tm_mon, parts.tm_mday,
                   parts.tm_hour, parts.tm_min, parts.tm_sec);
    return out;
}

static void check_stamp(time_t t)
{
    fuzz::guarded out(TTY_STAMP_SIZE);

    FUZZ_CHECK(tty_ctime_r(&t, out.data()) == out.data());
    FUZZ_CHECK(out.intact());
    FUZZ_CHECK(out.data() == reference_stamp(t));
    FUZZ_CHECK(tty_ctime_r(&t, nullptr) == nullptr);
}

// A year is a leap year when its last day is the 366th.
static void check_year(uint32_t year)
{
    struct tm last_day = {};

    last_day.tm_year =
        static_cast<int>(year % YEARS_PER_CYCLE + 2 * YEARS_PER_CYCLE - 1900);
    last_day.tm_mon = 11;
    last_day.tm_mday = 31;
    timegm(&last_day);
    FUZZ_CHECK(tty_is_leap_year(year) == (last_day.tm_yday == 365 ? 1 : 0));
}

// Logs one of the forms that messages have, and returns its text.
#define LOG_AND_EXPECT(expected, ...)                                          \
    do {                                                                       \
        if (service) {                                                         \
            vc_debug_msg(__VA_ARGS__);                                         \
        } else {                                                               \
            tty_debug_msg(level, __VA_ARGS__);                                 \
        }                                                                      \
        return expected;                                                       \
    } while (false)

static std::string log_text(bool service, int level, uint8_t form, int number,
                            const std::string &text)
{
    const std::string digits = std::to_string(number);
    const std::string cut = text.substr(0, static_cast<size_t>(number));
    const char *const s = text.c_str();

    switch (form % 4) {
    case 0:
        LOG_AND_EXPECT(text, "%s", s);
    case 1:
        LOG_AND_EXPECT("f(" + digits + "): " + text + " fail\r\n",
                       "%s(%d): %s fail\r\n", "f", number, s);
    case 2:
        LOG_AND_EXPECT(cut + "|" + text + "\n", "%.*s|%s\n", number, s, s);
    default:
        LOG_AND_EXPECT(text + "=" + text + " from " + text, "%s=%s from %s", s,
                       s, s);
    }
}

static std::string expected_line(bool service, const std::string &text)
{
    const std::string stamp = reference_stamp(now);

    if (!service) {
        return (stamp + text).substr(0, MESSAGE_LIMIT);
    }
    return stamp + " " + std::to_string(getpid()) + ":" +
           text.substr(0, MESSAGE_LIMIT);
}

static off_t size_of(const std::string &path)
{
    struct stat status = {};

    FUZZ_CHECK(stat(path.c_str(), &status) == 0);
    return status.st_size;
}

static std::string bytes_at(const std::string &path, off_t at, size_t length)
{
    std::string bytes(length, '\0');

    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    FUZZ_CHECK(pread(fd, bytes.data(), length, at) ==
               static_cast<ssize_t>(length));
    close(fd);
    return bytes;
}

static void check_file(const std::string &path, off_t before, bool written,
                       const std::string &line)
{
    if (!written) {
        FUZZ_CHECK(size_of(path) == before);
        return;
    }
    const off_t start = before > FILE_LIMIT ? 0 : before;
    FUZZ_CHECK(size_of(path) == start + static_cast<off_t>(line.size()));
    FUZZ_CHECK(bytes_at(path, start, line.size()) == line);
}

static void check_system_log(bool service, const std::string &line)
{
    const bool wanted = service && (in_the_way & CANNOT_OPEN) != 0 &&
                        (in_the_way & NO_DIRECTORY) == 0;

    FUZZ_CHECK(system_log.size() == (wanted ? 2U : 0U));
    if (wanted) {
        FUZZ_CHECK(system_log[1] ==
                   "VC: " + std::to_string(getpid()) + " " + line + ".\r\n");
    }
}

static void check_message(const std::string &path, bool service, off_t before,
                          uint8_t form, int number, const std::string &text)
{
    const bool trace = (in_the_way & TRACE) != 0 && !service;
    const bool dropped = trace && (in_the_way & TRACE_WANTED) == 0;
    const int free_before = fuzz::free_descriptor();

    FUZZ_CHECK(truncate(path.c_str(), before) == 0);
    system_log.clear();
    staged = true;
    errno = number;
    const std::string logged =
        log_text(service, trace ? 1 : 0, form, number, text);
    const int error = errno;
    staged = false;
    const std::string line = expected_line(service, logged);
    FUZZ_CHECK(service || error == number);
    check_file(path, before, !dropped && (in_the_way & CANNOT_OPEN) == 0, line);
    check_system_log(service, line);
    FUZZ_CHECK(fuzz::free_descriptor() == free_before);
}

struct dump_files {
    std::string tty;
    std::string vc;
};

static dump_files prepare()
{
    const std::string place = fuzz::runtime_directory() + "/mng/tty/";
    const dump_files files = {place + ".tty_lib_dump.txt",
                              place + ".vc_dump.txt"};

    fuzz::spill(files.tty, "");
    fuzz::spill(files.vc, "");
    vc_debug_init();
    return files;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const dump_files files = prepare();
    fuzz::input in(data, size);

    now = static_cast<time_t>(in.take64());
    check_stamp(now);
    check_year(in.take32());
    const uint32_t filled = in.take32();
    in_the_way = in.take8();
    const off_t before =
        (in_the_way & NEAR_LIMIT) != 0
            ? FILE_LIMIT - off_t{SIZES_AROUND_LIMIT / 2} +
                  static_cast<off_t>(filled % SIZES_AROUND_LIMIT)
            : static_cast<off_t>(filled % (2 * FILE_LIMIT));
    const uint8_t form = in.take8();
    const int number = in.take16();
    const std::string text = in.text(TEXT_LIMIT);
    check_message(files.tty, false, before, form, number, text);
    check_message(files.vc, true, before, form, number, text);
    return 0;
}
