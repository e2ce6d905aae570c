// The commands of an operator.
#pragma once

#include <string>

#include "programs/ttylined/server.h"

// Runs one line; its whole answer, in JSON when the line ends with "--json".
std::string command_run(server &srv, const std::string &line);
