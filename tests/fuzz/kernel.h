// A kernel in memory for the session service: descriptors, the inetd's end of
// the connection, pseudo-terminals and processes, none of which exist. While
// it is on, no call of the service reaches the machine, whatever path, port,
// family or process a record names.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <set>
#include <vector>

#include <ttyline/vc.h>

namespace kernel
{

// Numbers from here on are never given to a descriptor.
constexpr int DESCRIPTORS = 160;
// Processes have numbers above the machine's largest.
constexpr int FIRST_PROCESS = 10000000;

enum class kind : uint8_t {
    none,
    stream,
    inetd,
    socket,
    connection,
    pair,
    pty
};

// Bits of what fails from now on.
constexpr uint32_t FAIL_SOCKET = 0x0001;
constexpr uint32_t FAIL_BIND = 0x0002;
constexpr uint32_t FAIL_LISTEN = 0x0004;
constexpr uint32_t FAIL_CLOEXEC = 0x0008;
constexpr uint32_t FAIL_MASTER = 0x0010;
constexpr uint32_t FAIL_SLAVE = 0x0020;
constexpr uint32_t FAIL_FORK = 0x0040;
constexpr uint32_t FAIL_PAIR = 0x0080;
constexpr uint32_t FAIL_RELEASE = 0x0100;
constexpr uint32_t FAIL_SEND = 0x0200;    // EPIPE
constexpr uint32_t FAIL_SEND_FD = 0x0400; // EBADF
constexpr uint32_t SHORT_SEND = 0x0800;
constexpr uint32_t FAIL_ALLOC = 0x1000;
constexpr uint32_t FAIL_INIT = 0x2000;
constexpr uint32_t FAIL_MEMORY = 0x4000;
constexpr uint32_t FAIL_OPTION = 0x8000;

struct state {
    uint32_t failing;
    kind table[DESCRIPTORS];
    // What the next recv() delivers.
    const void *incoming;
    size_t incoming_size;
    // Called when the service makes a socket, as another thread may be at work
    // then; may be null.
    void (*on_socket)();
    // What the inetd has received, records and the beginning of one.
    std::vector<uint8_t> sent;
    // Closes of a descriptor that was open once and is not any more.
    int bad_closes;
    // Processes that were reaped or killed, which nobody may signal again.
    std::set<int> gone;
    int next_process;
};
extern state now;

// Puts it in the place of the machine's; once, before anything else.
void install();
// Off, the calls reach the machine. On, what is to fail is set before.
void turn(bool on);
// Only the standard streams and the inetd connection are open, nothing fails.
// Off.
void reset();
int inetd();
// Takes the first free number, as the system does; -1 when all are used.
int open_descriptor(kind what);
kind kind_of(int fd);
void close_descriptor(int fd);
// Takes off what the inetd has received; a check fails when it is no whole
// number of records.
std::vector<tty_cmsg> take_sent();

} // namespace kernel
