// Where the libraries keep their files, and whether it can be trusted.
#pragma once

#include <string>

// A name under the runtime directory, which begins with a slash. Nothing is
// created.
std::string runtime_path(const std::string &name);

// Whether the line store is there and nobody else can change what leads to it;
// why not otherwise. A daemon makes the store: nothing is created here either.
bool store_trusted(std::string &why);
