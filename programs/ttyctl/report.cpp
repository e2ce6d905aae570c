#include "programs/ttyctl/report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

int fail(exit_status status, const std::string &message)
{
    (void)std::fprintf(stderr, "ttyctl: %s\n", message.c_str());
    return status;
}

int usage_error(const std::string &message)
{
    return fail(EXIT_USAGE, message + "; try --help");
}

int print(const std::string &text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0) {
        return fail(EXIT_FAILED,
                    std::string("standard output: ") + std::strerror(errno));
    }
    return EXIT_DONE;
}
