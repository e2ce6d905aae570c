#include "programs/shared/runtime_path.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>

#include <ttyline/kit.h>

std::string runtime_path(const std::string &name)
{
    const char *directory = std::getenv("TMPDIR");

    return (directory != nullptr ? directory : "/") + name;
}

// The kit makes what is missing, so that is looked for before.
bool store_trusted(std::string &why)
{
    const std::string store = runtime_path("/mng/tty");
    struct stat status = {};

    if (lstat(store.c_str(), &status) != 0) {
        why = "there is no line store " + store + ": " + std::strerror(errno);
        return false;
    }
    if (kit_runtime_check() != 0) {
        why = kit_error();
        return false;
    }
    return true;
}
