#include "tests/support/login_records.h"

#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

tty_cmsg listen_request(int port, int protocol)
{
    tty_cmsg record = {};

    record.vc_flag = 0x008;
    record.socktype = AF_INET;
    record.port = port;
    record.protocol = protocol;
    record.pid = getpid();
    record.tos = -1;
    return record;
}

tty_cmsg path_request(const std::string &path, int protocol)
{
    tty_cmsg record = {};

    record.vc_flag = 0x080;
    record.socktype = AF_UNIX;
    record.protocol = protocol;
    record.pid = getpid();
    record.tos = -1;
    std::memcpy(record.path, path.data(),
                path.size() < sizeof record.path ? path.size()
                                                 : sizeof record.path);
    return record;
}

tty_cmsg accept_report(int protocol, int sockfd, int accept_id)
{
    tty_cmsg record = {};

    record.vc_flag = 0x001;
    record.sockfd = sockfd;
    record.socktype = AF_INET;
    record.port = 23;
    record.protocol = protocol;
    record.pid = getpid();
    record.peer_port = 40000;
    record.accept_id = accept_id;
    const uint8_t loopback[] = {127, 0, 0, 1};
    const uint8_t peer[] = {192, 0, 2, 7};
    std::memcpy(record.local_addr, loopback, sizeof loopback);
    std::memcpy(record.peer_addr, peer, sizeof peer);
    return record;
}

tty_cmsg with_flag(tty_cmsg record, uint32_t flag)
{
    record.vc_flag = flag;
    return record;
}

tty_cmsg line_clean(int ttyno, int pid)
{
    tty_cmsg record = {};

    record.vc_flag = 0x002;
    record.ttyno = ttyno;
    record.port = 23;
    record.protocol = 6;
    record.pid = pid;
    return record;
}
