// A client's end of a login session, whatever brings it to the server: a plain
// TCP connection, one that speaks the telnet protocol, or a client program on a
// terminal. The process must ignore SIGPIPE.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct Target {
    enum Kind { tcp, telnet, program } kind;
    int port;                         // tcp and telnet, on 127.0.0.1
    std::vector<std::string> command; // program
};

class Connection
{
  public:
    // Begins to connect; whatever fails ends the process with a message.
    explicit Connection(const Target &target);
    // Closes, and waits for a client program.
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int fd() const
    {
        return fd_;
    }
    // What the session program has sent and is there now, protocol taken off.
    // Never waits. An end of the connection ends the process with a message.
    size_t receive(char *buffer, size_t size);
    // Returns how many bytes went out without waiting.
    size_t send(const char *bytes, size_t size);

  private:
    size_t take_protocol_off(char *buffer, size_t size);
    void negotiate(unsigned char verb, unsigned char option);

    int fd_ = -1;
    pid_t pid_ = 0;
    bool telnet_ = false;
    int state_ = 0;
    unsigned char verb_ = 0;
    bool answered_[4][256] = {};
};

[[noreturn]] void give_up(const char *what);
