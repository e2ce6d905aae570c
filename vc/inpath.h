// The callbacks of an in-path service and what they share.
#pragma once

#include <ttyline/vc.h>

int vc_inpath_init_func(int ttyno);
int vc_inpath_alloc_func(int ttyno, int inetd_fd, int sockfd, int master_fd);
int vc_inpath_read_func(int ttyno);
int vc_inpath_write_func(int ttyno);
int vc_inpath_kill_func(int ttyno);
[[noreturn]] int vc_inpath_shell_func(int ttyno, const char *ttydev);

// Moves everything that from has at the moment to to, blocking while to takes
// nothing. Returns 0, or -1 at the end of from or after a failure.
int vc_inpath_transfer_msg(int from, int to);

// Closes the descriptors of the line's session, in the forked child: the
// program that it becomes must not hold them. The record stays.
void vc_inpath_clean_resource(int ttyno);
