// The line library's side of a line-allocation daemon of one test.
#pragma once

#include "tests/system/programs/ttylined_run.h"

// Requests of the line library, as bytes.
using bytes = std::vector<unsigned char>;

bytes item(uint16_t type, uint32_t value, uint16_t length = 4);
bytes operator+(bytes a, const bytes &b);
bytes about_line(uint32_t ttyno, uint16_t type, uint32_t value);
bytes hold(uint32_t except, uint32_t seconds);
bytes release();

long long now_ms();

class TtylinedAdmin : public ::testing::Test
{
  protected:
    ttylined_run run;
    unique_fd control;

    void start(std::vector<std::string> arguments = {}, int open_files = 0)
    {
        run_options options;
        options.arguments = std::move(arguments);
        options.arguments.insert(options.arguments.end(),
                                 {"--trace", "--control", run.control_path()});
        options.open_files = open_files;
        ASSERT_TRUE(run.start(options));
        control = connect_unix(run.control_path());
        ASSERT_GE(control.fd, 0);
    }

    unique_fd client() const
    {
        return connect_unix(run.socket_path());
    }

    unique_fd admin() const
    {
        return connect_unix(run.admin_path());
    }

    std::string ask(const std::string &line) const
    {
        return command(control, control, line);
    }

    std::string traced(const std::string &text) const
    {
        return read_until(run.out, text);
    }

    // From a process that has ended when the daemon reads it.
    bool tell(const bytes &request) const
    {
        const unique_fd fd = admin();

        return send(fd, request);
    }

    static bool send(const unique_fd &fd, const bytes &request)
    {
        return send_bytes(fd.fd, request.data(), request.size());
    }

    static bool report(const unique_fd &fd, int protocol, int sockfd)
    {
        return send_record(fd, accept_report(protocol, sockfd, sockfd));
    }

    // The line of the next assignment, which must be for this connection.
    static int assigned(const unique_fd &fd, int sockfd)
    {
        const auto answer = read_record(fd);

        return answer && answer->vc_flag == 0x001 && answer->sockfd == sockfd
                   ? answer->ttyno
                   : -1000;
    }
};
