#include "programs/shared/runtime_path.h"

#include <cstdlib>

std::string runtime_path(const std::string &name)
{
    const char *directory = std::getenv("TMPDIR");

    return (directory != nullptr ? directory : "/") + name;
}
