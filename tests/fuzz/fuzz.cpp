#include "tests/fuzz/fuzz.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fuzz
{

constexpr size_t GUARD = 64;
constexpr char PATTERN = 0x5a;
// More than the libraries ever hold open during a call.
constexpr int HELD_AT_ONCE = 8;

void fail(const char *condition, const char *file, int line)
{
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    abort();
}

input::input(const uint8_t *data, size_t size) : next_(data), left_(size)
{
}

size_t input::left() const
{
    return left_;
}

uint8_t input::take8()
{
    if (left_ == 0) {
        return 0;
    }
    left_--;
    return *next_++;
}

uint16_t input::take16()
{
    const unsigned int low = take8();

    return static_cast<uint16_t>(low | static_cast<unsigned int>(take8()) << 8);
}

uint32_t input::take32()
{
    const uint32_t low = take16();

    return low | static_cast<uint32_t>(take16()) << 16;
}

uint64_t input::take64()
{
    const uint64_t low = take32();

    return low | static_cast<uint64_t>(take32()) << 32;
}

std::string input::take(size_t count)
{
    const size_t length = std::min(count, left_);
    const std::string taken(next_, next_ + length);

    next_ += length;
    left_ -= length;
    return taken;
}

std::string input::rest()
{
    return take(left_);
}

std::string input::text(size_t count)
{
    std::string found;

    while (left_ > 0 && found.size() < count) {
        const char byte = static_cast<char>(take8());
        if (byte == '\0') {
            break;
        }
        found += byte;
    }
    return found;
}

static std::string made_directory;

static void remove_directory()
{
    std::error_code ignored;

    std::filesystem::remove_all(made_directory, ignored);
}

std::string runtime_directory()
{
    const char *wanted = getenv("TMPDIR");
    const char *place = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string directory =
        std::string(wanted != nullptr ? wanted : place) + "/fuzz-XXXXXX";

    FUZZ_CHECK(mkdtemp(directory.data()) != nullptr);
    made_directory = directory;
    FUZZ_CHECK(atexit(remove_directory) == 0);
    FUZZ_CHECK(setenv("TMPDIR", directory.c_str(), 1) == 0);
    std::filesystem::create_directories(directory + "/mng/tty");
    return directory;
}

std::string slurp(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;

    FUZZ_CHECK(file.is_open());
    content << file.rdbuf();
    return content.str();
}

void spill(const std::string &path, const std::string &content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);

    file << content;
    file.close();
    FUZZ_CHECK(file.good());
}

int free_descriptor()
{
    // A program may have been started without a standard input to duplicate.
    static const int any = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int taken[HELD_AT_ONCE + 1];

    for (int &fd : taken) {
        fd = fcntl(any, F_DUPFD_CLOEXEC, 0);
        FUZZ_CHECK(fd >= 0);
    }
    for (const int fd : taken) {
        close(fd);
    }
    return taken[HELD_AT_ONCE];
}

guarded::guarded(size_t size) : bytes_(size + 2 * GUARD, PATTERN), size_(size)
{
}

char *guarded::data()
{
    return bytes_.data() + GUARD;
}

static bool is_pattern(const std::string &bytes)
{
    return bytes.find_first_not_of(PATTERN) == std::string::npos;
}

bool guarded::intact() const
{
    return is_pattern(bytes_.substr(0, GUARD)) &&
           is_pattern(bytes_.substr(GUARD + size_));
}

bool guarded::untouched() const
{
    return is_pattern(bytes_);
}

std::string guarded::content() const
{
    return bytes_.substr(GUARD, size_);
}

} // namespace fuzz
