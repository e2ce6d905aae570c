#include "kit/bell.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

bool kit_pair_open(int ends[2])
{
    return socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0;
}

bool kit_bell_say(int bell, bell_kind kind, int number, const char *text)
{
    bell_message message = {};

    message.kind = kind;
    message.number = number;
    (void)snprintf(message.text, sizeof message.text, "%s", text);
    return send(bell, &message, sizeof message, MSG_DONTWAIT | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sizeof message);
}

int kit_bell_hear(int bell, bell_message *message)
{
    ssize_t got;

    do {
        got = recv(bell, message, sizeof *message, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got == static_cast<ssize_t>(sizeof *message)) {
        message->text[BELL_TEXT_SIZE - 1] = '\0';
        return 1;
    }
    return got < 0 && errno == EAGAIN ? 0 : -1;
}

ssize_t kit_channel_take(int channel, uint8_t *kind, void *data, size_t size)
{
    struct iovec parts[] = {{kind, 1}, {data, size}};
    struct msghdr header = {};
    ssize_t got;

    header.msg_iov = parts;
    header.msg_iovlen = 2;
    do {
        got = recvmsg(channel, &header, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
        return got - 1;
    }
    return got < 0 && errno == EAGAIN ? -1 : -2;
}

bool kit_channel_put(int channel, uint8_t kind, const void *data, size_t length,
                     bool wait)
{
    struct iovec parts[] = {{&kind, 1}, {const_cast<void *>(data), length}};
    struct msghdr header = {};
    ssize_t sent;

    header.msg_iov = parts;
    header.msg_iovlen = 2;
    do {
        sent =
            sendmsg(channel, &header, MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT));
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}
