// The records that a login daemon sends to the line-allocation daemon.
#pragma once

#include <string>

#include <ttyline/vc.h>

tty_cmsg listen_request(int port, int protocol);
tty_cmsg path_request(const std::string &path, int protocol);
tty_cmsg accept_report(int protocol, int sockfd, int accept_id);
tty_cmsg with_flag(tty_cmsg record, uint32_t flag);
tty_cmsg line_clean(int ttyno, int pid);
