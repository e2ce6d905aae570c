#include "programs/telnetd/terminals.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

// Where programs look. Each has a directory for each first letter.
static const char *const DATABASES[] = {
    "/etc/terminfo", "/lib/terminfo", "/usr/lib/terminfo",
    "/usr/share/terminfo", "/usr/local/share/terminfo"};

static std::vector<std::string> g_names;

static void load(const fs::path &directory)
{
    std::error_code error;

    for (const auto &entry : fs::directory_iterator(directory, error)) {
        g_names.push_back(entry.path().filename().string());
    }
}

void terminals_load()
{
    std::error_code error;

    g_names.clear();
    for (const char *database : DATABASES) {
        for (const auto &letter : fs::directory_iterator(database, error)) {
            load(letter.path());
        }
    }
    std::sort(g_names.begin(), g_names.end());
}

bool terminal_known(const char *type)
{
    return std::binary_search(g_names.begin(), g_names.end(), type);
}
