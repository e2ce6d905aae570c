/*
 * Listening unix sockets and the directories in which they lie.
 */
#ifndef TTYLINED_SOCKET_H
#define TTYLINED_SOCKET_H

#include <string>

#include <sys/types.h>

struct unix_listener {
    int fd = -1;
    std::string path;
    dev_t device = 0; /* of the socket file, to know it again at the end */
    ino_t inode = 0;
};

/* Non-blocking, mode 0600. A socket file that nobody serves is replaced. */
bool unix_listen(const std::string &path, unix_listener &listener,
                 std::string &error);

/* Closes the socket and removes its file unless another took its place. */
void unix_listener_end(unix_listener &listener);

/*
 * Makes the directory of the daemons' socket under the runtime directory and
 * locks it for the life of the process. Gives the socket's path.
 */
bool runtime_socket_path(std::string &path, std::string &error);

/* The path of the administration socket, in the directory above. */
std::string admin_socket_path();

#endif
