// The daemon's place in the runtime directory.
#pragma once

#include <string>

// Makes the directory of the login daemons' socket and locks it for the life
// of the process. Gives the socket's path; false, and why, when another daemon
// has the lock, the directory cannot be made, or somebody else could change
// what leads to it.
bool runtime_take(std::string &socket_path, std::string &error);

// The path of the line library's socket, in the directory above.
std::string runtime_admin_path();
