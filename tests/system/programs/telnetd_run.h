// The telnet daemon as it is delivered, without root, against an inetd that
// answers, and its clients: one that the test plays, and real ones.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/system/support/daemon.h"
#include "tests/system/support/program.h"

// Of the protocol, for texts.
constexpr char IAC = '\xff';
constexpr char DONT = '\xfe';
constexpr char DO = '\xfd';
constexpr char WONT = '\xfc';
constexpr char WILL = '\xfb';
constexpr char SB = '\xfa';
constexpr char IP = '\xf4';
constexpr char DATA_MARK = '\xf2';
constexpr char SE = '\xf0';
constexpr char BINARY = 0;
constexpr char OPTION_ECHO = 1;
constexpr char SGA = 3;
constexpr char TTYPE = 24;
constexpr char NAWS = 31;

// A client that the test plays.
class Peer
{
  public:
    explicit Peer(int fd);
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    int fd() const
    {
        return fd_;
    }
    bool say(const std::string &bytes) const;
    // Refuses to tell anything of its terminal, so that the program starts.
    bool refuse() const;
    // Reads until the text, of which commands are left out, has this in it; all
    // of the text since the last call. Up to the end of the connection or the
    // deadline when it never has.
    std::string text_until(const std::string &wanted);
    // All that comes until the daemon ends the connection.
    std::string text_to_end();
    // The commands that were left out, each with its option.
    const std::string &commands() const
    {
        return commands_;
    }

  private:
    bool read_some();
    void take(char byte);

    int fd_;
    std::string text_;
    std::string commands_;
    int skip_ = 0; // 0: data, 1: behind IAC, 2: an option, 3 and 4: inside SB
};

// A real client on a terminal of its own.
class Client
{
  public:
    // Of this size, in columns and rows, and type.
    Client(const std::vector<std::string> &words, int columns, int rows,
           const char *type);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool type(const std::string &text) const;
    void resize(int columns, int rows) const;
    // What it shows until this comes, as Peer::text_until() has it.
    std::string shown_until(const std::string &wanted);
    // Whether it ends before the deadline.
    bool ends();

  private:
    int master_ = -1;
    pid_t pid_ = -1;
    std::string shown_;
};

class Telnetd : public SystemTest
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // With a program that is a shell command, on a port over both families.
    void start(const std::string &command,
               const std::vector<std::string> &options = {});
    std::unique_ptr<Peer> connect() const;
    // The whole answer of the control socket.
    std::string ask(const std::string &line) const;
    // What is stored of the first line.
    bool stored_has(const std::string &entry) const;

    std::string port_word() const
    {
        return std::to_string(port);
    }

    int port = 0;
    std::unique_ptr<AnsweringInetd> inetd;
    std::unique_ptr<Program> daemon;
};
