// Runs a fuzz target on files instead of mutations, so that what fuzzing has
// taught is checked by every compiler and sanitizer.
//
// Usage: corpus_TARGET FILE|DIRECTORY...
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/fuzz/fuzz.h"

static std::vector<std::string> files_in(const std::string &place)
{
    std::vector<std::string> found;

    if (!std::filesystem::is_directory(place)) {
        return {place};
    }
    for (const auto &entry : std::filesystem::directory_iterator(place)) {
        found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    return found;
}

static void run(const std::string &bytes)
{
    // A copy of exactly this size: a read behind it is found.
    const std::vector<uint8_t> copy(bytes.begin(), bytes.end());

    LLVMFuzzerTestOneInput(copy.data(), copy.size());
}

int main(int argc, char **argv)
{
    int count = 0;

    run("");
    for (int i = 1; i < argc; i++) {
        for (const std::string &file : files_in(argv[i])) {
            fprintf(stderr, "%s\n", file.c_str());
            run(fuzz::slurp(file));
            count++;
        }
    }
    printf("%d inputs\n", count);
    // A corpus that is not there is no corpus that passed.
    return count > 0 ? 0 : 1;
}
