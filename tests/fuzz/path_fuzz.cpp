// Paths inside the runtime directory for any TMPDIR, name and size; names of
// a line's files; the path field of a record.
//
// Input: size (2 bytes), line number (4), what to do (1), TMPDIR up to a zero
// byte, name.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "common/runtime_dir.h"
#include "tests/fuzz/fuzz.h"
#include "tty/info_file.h"
#include "vc/message.h"

constexpr unsigned int SIZE_LIMIT = 600;
constexpr size_t TEXT_LIMIT = 2048;
constexpr uint8_t UNSET = 1;
constexpr uint8_t NO_BUFFER = 2;

// What the library sees as the value of TMPDIR; the C library would keep
// every value that was ever set.
static bool staged;
static const char *staged_value;

extern "C" {
char *__real_getenv(const char *name);
char *__wrap_getenv(const char *name);
}

char *__wrap_getenv(const char *name)
{
    return staged && strcmp(name, "TMPDIR") == 0
               ? const_cast<char *>(staged_value)
               : __real_getenv(name);
}

// The directories are made once per process, here, and not where an input's
// TMPDIR leads.
static std::string prepare()
{
    const std::string directory = fuzz::runtime_directory();
    char path[TTY_PATH_SIZE];

    FUZZ_CHECK(tty_make_path(path, sizeof path, "/mng") != nullptr);
    return directory;
}

static std::string padded(std::string text, size_t size)
{
    text.resize(size, '\0');
    return text;
}

static void check_runtime_path(unsigned int size, const std::string &prefix,
                               const std::string &name)
{
    fuzz::guarded buffer(size);
    const std::string expected = prefix + name;
    const bool fits = expected.size() < size;

    errno = 0;
    staged = true;
    const char *result = tty_make_path(buffer.data(), size, name.c_str());
    staged = false;
    FUZZ_CHECK(buffer.intact());
    FUZZ_CHECK(result == (fits ? buffer.data() : nullptr));
    FUZZ_CHECK(buffer.content() == padded(fits ? expected : "", size));
    FUZZ_CHECK(fits || errno == ENAMETOOLONG);
}

static void check_line_names(const std::string &prefix, uint32_t ttyno)
{
    const std::string expected =
        prefix + "_" + std::to_string(static_cast<int32_t>(ttyno));
    info_names names = {};

    const bool made = name_files(&names, prefix.c_str(), ttyno);
    FUZZ_CHECK(made == (expected.size() < sizeof names.info));
    if (made) {
        FUZZ_CHECK(names.info == expected);
        FUZZ_CHECK(names.lock == expected + ".lock");
        FUZZ_CHECK(names.temporary == expected + ".tmp");
    }
}

static void check_record_path(const std::string &path)
{
    constexpr size_t limit = VC_PATH_SIZE - 1;
    const std::string expected = path.substr(0, limit);
    tty_cmsg before;
    tty_cmsg msg;

    memset(&before, 0x5a, sizeof before);
    memcpy(&msg, &before, sizeof msg);
    vc_msg_set_path(&msg, path.c_str());
    FUZZ_CHECK(memcmp(&msg, &before, offsetof(tty_cmsg, path)) == 0);
    FUZZ_CHECK(std::string(msg.path, sizeof msg.path) ==
               padded(expected, VC_PATH_SIZE));
    FUZZ_CHECK(vc_msg_path_of(&msg).text == expected);
    // A field without a terminator is a text of its whole length.
    const std::string field = padded(path, VC_PATH_SIZE);
    memcpy(msg.path, field.data(), VC_PATH_SIZE);
    FUZZ_CHECK(vc_msg_path_of(&msg).text ==
               std::string(field, 0, strnlen(field.c_str(), VC_PATH_SIZE)));
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string directory = prepare();
    fuzz::input in(data, size);

    const unsigned int room = in.take16() % SIZE_LIMIT;
    const uint32_t ttyno = in.take32();
    const uint8_t what = in.take8();
    const std::string prefix = in.text(TEXT_LIMIT);
    const std::string name = in.text(TEXT_LIMIT);

    const bool unset = (what & UNSET) != 0;
    staged_value = unset ? nullptr : prefix.c_str();
    check_runtime_path(room, unset ? "/" : prefix, name);
    if ((what & NO_BUFFER) != 0) {
        FUZZ_CHECK(tty_make_path(nullptr, room, name.c_str()) == nullptr);
    }
    check_line_names(prefix, ttyno);
    check_record_path(name);
    return 0;
}
