// What is stored of a line, read without the library: it waits for the line's
// lock, and for whatever lies in the place of the file.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

struct line_values {
    std::map<std::string, std::string> of; // by key, as the library gives them
    bool whole = true;                     // the last line has its end
};

// A file that is missing holds nothing. False for what is no plain file, is
// too large to be one of the library's, or cannot be read.
bool read_info(const std::string &path, line_values &values);

// Neither a link nor a device nor anything else that a write would go through.
bool plain_or_absent(const std::string &path);

using stored_pairs = std::vector<std::pair<std::string, std::string>>;

// What is not there as it was stored: one of the pairs, or another key that was
// there before; empty when all is. On a full disk the library moves a cut file
// into place and says nothing.
std::string missing_after(const line_values &before, const line_values &after,
                          const stored_pairs &stored);
