// The login daemon as it is delivered, against an inetd that the test plays.
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "tests/system/support/daemon.h"
#include "tests/system/support/program.h"

inline std::string content(const std::string &name)
{
    std::ifstream file(name, std::ios::binary);
    std::stringstream text;

    text << file.rdbuf();
    return text.str();
}

class Consoled : public SystemTest
{
  protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        const std::string directory =
            std::filesystem::path(RL_CON_PATH).parent_path();
        const char *usual = getenv("PATH");
        setenv("PATH", (directory + ":" + (usual ? usual : "/bin")).c_str(), 1);
        setenv("SHELL", "/bin/sh", 1);
        inetd = std::make_unique<FakeInetd>();
    }

    void TearDown() override
    {
        if (daemon) {
            EXPECT_TRUE(process_runs(daemon->pid())) << "it ended by itself";
        }
        daemon.reset();
        inetd.reset();
        SystemTest::TearDown();
    }

    // Tests run as root too, which has to say this; --login goes before it.
    void launch(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "--no-authentication");
        daemon = std::make_unique<Program>(CONSOLED_PATH, arguments, [] {});
    }

    void start(const std::vector<std::string> &arguments)
    {
        launch(arguments);
        connection = inetd->accept();
    }

    std::string control_path() const
    {
        return path("/control");
    }

    // On a port over IPv4, permitted and listening, with a control socket.
    int start_on_port()
    {
        const int port = free_port(AF_INET);
        start({"--port", std::to_string(port), "--no-ipv6", "--allow",
               "127.0.0.1", "--control", control_path(), "/bin/cat"});
        permit_next();
        EXPECT_TRUE(listens(port));
        return port;
    }

    tty_cmsg permit_next()
    {
        const auto request = connection.receive();
        EXPECT_TRUE(request);
        if (!request) {
            return {};
        }
        EXPECT_TRUE(connection.permit(*request));
        return *request;
    }

    static int connect_when_served(const std::function<int()> &connect)
    {
        int client = -1;
        EXPECT_TRUE(eventually([&] {
            return (client = connect()) >= 0;
        }));
        return client;
    }

    static bool listens(int port)
    {
        return eventually([&] {
            return port_listens(AF_INET, port);
        });
    }

    int connect_control() const
    {
        return connect_when_served([&] {
            return connect_path(control_path());
        });
    }

    // Sends one line to a connection and reads one line.
    static std::string ask(int client, const std::string &line)
    {
        return write_all(client, line + "\n") ? read_until(client, "\n")
                                              : "cannot send";
    }

    // A client of its own for one command.
    std::string control(const std::string &line) const
    {
        const int client = connect_control();
        const std::string answer = ask(client, line);
        close(client);
        return answer;
    }

    // Connects to a path and gets line 300; the session's pid.
    int log_in_path(int *client, const std::string &name = "/inpath")
    {
        *client = connect_when_served([&] {
            return connect_path(path(name));
        });
        const auto report = connection.receive();
        if (!report || report->vc_flag != 0x001u ||
            !connection.assign(*report, 300)) {
            return -1;
        }
        const auto success = connection.receive();
        return success && success->vc_flag == 0x020u ? success->pid : -1;
    }

    bool catches_sigchld() const
    {
        const std::string status =
            content("/proc/" + std::to_string(daemon->pid()) + "/status");
        const size_t at = status.find("SigCgt:");
        const unsigned long long caught =
            std::stoull(status.substr(at + strlen("SigCgt:")), nullptr, 16);
        return (caught >> (SIGCHLD - 1) & 1) != 0;
    }

    std::unique_ptr<FakeInetd> inetd;
    std::unique_ptr<Program> daemon;
    InetdConnection connection{-1};
};
