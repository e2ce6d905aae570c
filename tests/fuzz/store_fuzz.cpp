// A line's information file of any content, and gets and sets on it.
//
// Input: which line, whether it has a file, which key, which other key, size
// of the reader's buffer, length of the value (1 byte each, the length in
// units of one or sixteen), the value up to a zero byte, the file.
//
// Every result is compared with a second opinion on what the store does,
// exceptions included; where no exception applies, the properties that users
// rely on are checked besides, by lines and not by pieces.
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include <ttyline/tty.h>

#include "common/keys.h"
#include "tests/fuzz/fuzz.h"

constexpr size_t FILE_LIMIT = 4096;
constexpr size_t VALUE_LIMIT = 1500;
constexpr size_t PIECE_LIMIT = 1024;
// Key and value together; longer pairs are cut.
constexpr size_t PAIR_LIMIT = 1020;
constexpr size_t READER_LIMIT = 2048;

// What an input is about.
struct job {
    unsigned int ttyno;
    bool has_file;
    std::string key;
    std::string other;
    size_t room;
    std::string value;
    std::string content;
};

// The store reads byte by byte. Here one system call fetches the whole file
// for it, which makes a run many times as fast; nothing else reads from the
// descriptor, so where the kernel believes it to be does not matter.
static struct {
    int fd = -1;
    size_t at;
    size_t size;
    // A set may replace each line by one of full length.
    char bytes[512 * FILE_LIMIT];
} ahead;

extern "C" {
ssize_t __real_read(int fd, void *buf, size_t size);
ssize_t __wrap_read(int fd, void *buf, size_t size);
int __real_close(int fd);
int __wrap_close(int fd);
}

ssize_t __wrap_read(int fd, void *buf, size_t size)
{
    if (size != 1) {
        return __real_read(fd, buf, size);
    }
    if (ahead.fd != fd) {
        const ssize_t got = __real_read(fd, ahead.bytes, sizeof ahead.bytes);
        FUZZ_CHECK(got >= 0 && static_cast<size_t>(got) < sizeof ahead.bytes);
        ahead.size = static_cast<size_t>(got);
        ahead.at = 0;
        ahead.fd = fd;
    }
    if (ahead.at == ahead.size) {
        return 0;
    }
    *static_cast<char *>(buf) = ahead.bytes[ahead.at++];
    return 1;
}

int __wrap_close(int fd)
{
    if (fd == ahead.fd) {
        ahead.fd = -1;
    }
    return __real_close(fd);
}

static std::vector<std::string> pieces_of(const std::string &content)
{
    static const std::string ends("\n\0", 2);
    std::vector<std::string> pieces;

    for (size_t at = 0; at < content.size(); at += pieces.back().size()) {
        const size_t end = content.find_first_of(ends, at);
        const size_t length =
            end == std::string::npos ? content.size() - at : end + 1 - at;
        pieces.push_back(content.substr(at, std::min(length, PIECE_LIMIT)));
    }
    return pieces;
}

static std::vector<std::string> lines_of(const std::string &content)
{
    std::vector<std::string> lines;

    for (size_t at = 0; at < content.size(); at += lines.back().size()) {
        const size_t feed = content.find('\n', at);
        lines.push_back(content.substr(
            at, feed == std::string::npos ? feed : feed + 1 - at));
    }
    return lines;
}

static bool is_of(const std::string &piece, const std::string &key)
{
    return piece.compare(0, key.size() + 1, key + "=") == 0;
}

static std::string without_zero(const std::string &piece)
{
    return piece.substr(0, piece.find('\0'));
}

static std::string pair_of(const job &j)
{
    return (j.key + "=" + j.value + "\r\n").substr(0, PIECE_LIMIT - 1);
}

static std::string expected_file(const job &j)
{
    std::string content;
    bool found = false;

    for (const std::string &piece : pieces_of(j.content)) {
        const bool own = is_of(piece, j.key);
        content += own ? pair_of(j) : without_zero(piece);
        found = found || own;
    }
    return found ? content : content + pair_of(j);
}

// What a get of a key finds in a file, or that it finds nothing.
static bool expected_get(const std::string &content, const std::string &key,
                         size_t room, std::string *value)
{
    for (const std::string &piece : pieces_of(content)) {
        if (!is_of(piece, key)) {
            continue;
        }
        *value = without_zero(piece).substr(key.size() + 1, room - 1);
        const size_t length = value->size();
        if (length >= 2 && (*value)[length - 2] == '\r' && *value != "\r\n") {
            value->resize(length - 2);
            return true;
        }
        return !value->empty() && *value != "\r\n" && *value != "null";
    }
    return false;
}

static void check_get(const job &j, const std::string &content,
                      const std::string &key)
{
    fuzz::guarded buffer(j.room);
    std::string expected;

    const bool found = expected_get(content, key, j.room, &expected);
    const char *result = tty_getenv(j.ttyno, key.c_str(), buffer.data(),
                                    static_cast<int>(j.room));
    FUZZ_CHECK(buffer.intact());
    FUZZ_CHECK(result == (found ? buffer.data() : nullptr));
    FUZZ_CHECK(memchr(buffer.data(), '\0', j.room) != nullptr);
    FUZZ_CHECK(!found || expected == buffer.data());
}

// None of the cases in which the file's form gives way: bytes and lengths that
// a line cannot hold, a line without its end before a new pair.
static bool regular(const job &j)
{
    if (j.key.size() + j.value.size() > PAIR_LIMIT ||
        j.value.find('\n') != std::string::npos ||
        j.content.find('\0') != std::string::npos) {
        return false;
    }
    for (const std::string &line : lines_of(j.content)) {
        if (line.size() > PIECE_LIMIT || line.back() != '\n') {
            return false;
        }
    }
    return true;
}

// The lines of other keys stand where they stood, and the key's own lines are
// the pair; a new key is one more line at the end.
static void check_lines(const job &j, const std::string &after)
{
    const std::vector<std::string> old_lines = lines_of(j.content);
    const std::vector<std::string> new_lines = lines_of(after);
    bool found = false;

    FUZZ_CHECK(new_lines.size() >= old_lines.size());
    for (size_t i = 0; i < old_lines.size(); i++) {
        const bool own = is_of(old_lines[i], j.key);
        FUZZ_CHECK(new_lines[i] == (own ? pair_of(j) : old_lines[i]));
        found = found || own;
    }
    FUZZ_CHECK(new_lines.size() == old_lines.size() + (found ? 0 : 1));
    FUZZ_CHECK(found || new_lines.back() == pair_of(j));
}

static void check_stored_value(const job &j)
{
    char buffer[READER_LIMIT];

    const char *got = tty_getenv(j.ttyno, j.key.c_str(), buffer, sizeof buffer);
    FUZZ_CHECK((got != nullptr) == !j.value.empty());
    FUZZ_CHECK(got == nullptr || j.value == got);
}

static std::string path_of(const std::string &place, unsigned int ttyno)
{
    return place + "/mng/tty/.tty_info_" + std::to_string(ttyno);
}

static void put_file(const job &j, const std::string &path)
{
    if (j.has_file) {
        fuzz::spill(path, j.content);
    } else {
        unlink(path.c_str());
    }
}

static void check_set(const job &j, const std::string &path)
{
    const int result = tty_setenv(j.ttyno, j.key.c_str(), j.value.c_str());

    FUZZ_CHECK(result == 0);
    FUZZ_CHECK(access((path + ".tmp").c_str(), F_OK) != 0);
    if (!j.has_file && j.value.empty()) {
        FUZZ_CHECK(access(path.c_str(), F_OK) != 0);
        return;
    }
    const std::string after = fuzz::slurp(path);
    FUZZ_CHECK(after == expected_file(j));
    check_get(j, after, j.key);
    check_get(j, after, j.other);
    if (regular(j)) {
        check_lines(j, after);
        check_stored_value(j);
    }
}

// Names and numbers that are none are refused, and nothing happens.
static void check_refusals(const job &j, const std::string &path)
{
    const std::string longer = j.key + "=";
    fuzz::guarded buffer(j.room);
    const int room = static_cast<int>(j.room);

    FUZZ_CHECK(tty_setenv(j.ttyno, longer.c_str(), j.value.c_str()) == -1);
    FUZZ_CHECK(tty_setenv(j.ttyno, j.key.c_str(), nullptr) == -1);
    FUZZ_CHECK(tty_setenv(TTY_LINES, j.key.c_str(), "x") == -1);
    FUZZ_CHECK(tty_getenv(j.ttyno, longer.c_str(), buffer.data(), room) ==
               nullptr);
    FUZZ_CHECK(buffer.untouched());
    FUZZ_CHECK(!j.has_file || fuzz::slurp(path) == j.content);
}

static bool signals_blocked()
{
    sigset_t now;

    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    return sigismember(&now, SIGTERM) == 1;
}

static job read_job(fuzz::input *in)
{
    static const unsigned int lines[] = {300, 1, 1585, 80000, 80001};
    job j = {};

    const uint8_t line = in->take8();
    j.ttyno = lines[line % (sizeof lines / sizeof lines[0])];
    j.has_file = in->take8() != 0;
    j.key = tty_envs[in->take8() % TTY_ENV_COUNT];
    j.other = tty_envs[in->take8() % TTY_ENV_COUNT];
    j.room = 1U + in->take8();
    const uint8_t length = in->take8();
    j.value = in->text(length < 0x80 ? length : length * size_t{16});
    j.value.resize(std::min(j.value.size(), VALUE_LIMIT));
    j.content = j.has_file ? in->take(FILE_LIMIT) : "";
    return j;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string place = fuzz::runtime_directory();
    fuzz::input in(data, size);

    const job j = read_job(&in);
    const std::string path = path_of(place, j.ttyno);
    put_file(j, path);
    const int free_before = fuzz::free_descriptor();
    if (j.has_file) {
        check_get(j, j.content, j.key);
        FUZZ_CHECK(fuzz::slurp(path) == j.content);
    }
    check_refusals(j, path);
    check_set(j, path);
    FUZZ_CHECK(fuzz::free_descriptor() == free_before);
    FUZZ_CHECK(!signals_blocked());
    return 0;
}
