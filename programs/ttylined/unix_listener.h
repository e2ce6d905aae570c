// Listening unix sockets.
#pragma once

#include <string>

#include <sys/types.h>

struct unix_listener {
    int fd = -1;
    std::string path;
    dev_t device = 0; // of the socket file, to know it again at the end
    ino_t inode = 0;
};

// Non-blocking, mode 0600. A socket file that nobody serves is replaced.
bool unix_listen(const std::string &path, unix_listener &listener,
                 std::string &error);

// Closes the socket and removes its file unless another took its place.
void unix_listener_end(unix_listener &listener);
