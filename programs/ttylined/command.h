// The commands of an operator.
#pragma once

#include <string>

#include "programs/ttylined/server.h"

// Runs one line and appends its answer, in whole lines, to the reply.
void command_run(server &srv, const std::string &line, std::string &reply);
