// Where the libraries keep their files.
#pragma once

#include <string>

// A name under the runtime directory, which begins with a slash. Nothing is
// created.
std::string runtime_path(const std::string &name);
