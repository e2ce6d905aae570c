// Where the runtime files lie, and the directories made on first use.
#include "common/runtime_dir.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <atomic>

inline namespace TTYLINE_FACE
{

static const char *runtime_prefix(void)
{
    const char *prefix = getenv("TMPDIR");

    return prefix != nullptr ? prefix : "/";
}

// Two threads may both make the directories on the first call; the loser
// finds them there.
static void make_directories(const char *prefix)
{
    static std::atomic<unsigned char> is_mkdir{0};
    char path[TTY_PATH_SIZE];

    if (is_mkdir.load(std::memory_order_relaxed) == 1) {
        return;
    }
    // A prefix that leaves no room is cut like any other text of that length.
    (void)snprintf(path, sizeof path, "%s/mng", prefix);
    mkdir(path, 0777);
    (void)snprintf(path, sizeof path, "%s/mng/tty", prefix);
    mkdir(path, 0777);
    is_mkdir.store(1, std::memory_order_relaxed);
}

char *tty_make_path(char *buf, unsigned int size, const char *name)
{
    if (buf == nullptr) {
        return nullptr;
    }
    memset(buf, 0, size);

    const char *prefix = runtime_prefix();
    make_directories(prefix);

    const int length = snprintf(buf, size, "%s%s", prefix, name);
    // seldom covered: snprintf() fails for lengths above INT_MAX only
    if (length < 0 || static_cast<unsigned int>(length) >= size) {
        memset(buf, 0, size);
        errno = ENAMETOOLONG;
        return nullptr;
    }
    return buf;
}

} // namespace TTYLINE_FACE
