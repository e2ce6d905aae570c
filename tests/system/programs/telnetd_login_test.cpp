// The telnet daemon as root: a real client logs in by name and password, and
// what reads the network has no rights.
#include <grp.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/system/programs/login_machine.h"
#include "tests/system/programs/telnetd_run.h"

namespace fs = std::filesystem;

class TelnetdLogin : public SystemTest
{
  protected:
    void SetUp() override
    {
        if (!enter_login_machine()) {
            GTEST_SKIP() << "only root has a machine of its own";
        }
        SystemTest::SetUp();
        entered = true;
        inetd = std::make_unique<AnsweringInetd>();
        port = free_port(AF_INET);
    }

    void TearDown() override
    {
        if (entered) {
            client.reset();
            daemon.reset();
            inetd.reset();
            SystemTest::TearDown();
        }
    }

    void start(const std::vector<std::string> &options = {})
    {
        std::vector<std::string> words = {
            "--port",    std::to_string(port), "--no-ipv6",     "--allow",
            "127.0.0.1", "--control",          path("/control")};
        words.insert(words.end(), options.begin(), options.end());
        daemon = std::make_unique<Program>(TTYLINE_TELNETD_PATH, words, [] {
            // As root's own shell has them.
            const gid_t groups[] = {0, 99};
            if (setgroups(2, groups) != 0) {
                _exit(126);
            }
        });
        inetd->start();
        ASSERT_TRUE(eventually([&] {
            return port_listens(AF_INET, port);
        }));
    }

    void connect()
    {
        client = std::make_unique<Client>(
            std::vector<std::string>{"inetutils-telnet", "127.0.0.1",
                                     std::to_string(port)},
            111, 37, "linux");
    }

    // Shows whether the shell greets.
    bool log_in(const std::string &password = "open sesame\r")
    {
        connect();
        client->shown_until("login: ");
        client->type("alice\r");
        client->shown_until("Password: ");
        client->type(password);
        return client->shown_until("alice> ").find("alice> ") !=
               std::string::npos;
    }

    std::string run(const std::string &command) const
    {
        client->type(command + "\r");
        return client->shown_until("alice> ");
    }

    std::string ask(const std::string &line) const
    {
        const int fd = connect_path(path("/control"));
        if (fd < 0 || !write_all(fd, line + "\n")) {
            return "no control socket";
        }
        const std::string answer = read_until(fd, "ok\n");
        close(fd);
        return answer;
    }

    // Of the only session's keeper.
    std::string keeper() const
    {
        const std::string row = ask("sessions");
        const size_t at = row.find(" keeper=");
        return at == std::string::npos
                   ? "none"
                   : row.substr(at + 8, row.find(' ', at + 1) - at - 8);
    }

    static std::string status_of(const std::string &pid,
                                 const std::string &name)
    {
        std::ifstream file("/proc/" + pid + "/status");
        std::string line;
        while (std::getline(file, line)) {
            if (line.compare(0, name.size() + 1, name + ":") == 0) {
                return line.substr(name.size() + 2);
            }
        }
        return "";
    }

    bool stored_has(const std::string &entry) const
    {
        return content_of(path("/mng/tty/.tty_info_258"))
                   .find(entry + "\r\n") != std::string::npos;
    }

    bool entered = false;
    int port = 0;
    std::unique_ptr<AnsweringInetd> inetd;
    std::unique_ptr<Program> daemon;
    std::unique_ptr<Client> client;
};

TEST_F(TelnetdLogin, user_logs_in_and_is_known_on_the_line)
{
    start();
    ASSERT_TRUE(log_in());
    EXPECT_NE(run("echo \"<$(id -un) $TERM $(stty size)>\"")
                  .find("<alice linux 37 111>"),
              std::string::npos);
    for (const char *entry :
         {"LOGNAME=alice", "LOGSUCC=1", "PEERNAME=127.0.0.1", "PROTOCOL=4",
          "CONN_TYPE=2", "TERM=linux", "COLUMNS=111", "LINES=37"}) {
        EXPECT_TRUE(stored_has(entry)) << entry;
    }
    EXPECT_NE(content_of("/home/noted").find("open_session alice 127.0.0.1"),
              std::string::npos);
    client->type("exit\r");
    EXPECT_TRUE(client->ends());
    EXPECT_TRUE(eventually([&] {
        return stored_has("SESSIONID=0") && !stored_has("LOGNAME=alice");
    }));
    EXPECT_TRUE(eventually([&] {
        return content_of("/home/noted").find("close_session alice") !=
               std::string::npos;
    }));
}

TEST_F(TelnetdLogin, line_is_nobodys_until_somebody_logs_in)
{
    start();
    connect();
    client->shown_until("login: ");
    EXPECT_TRUE(eventually([&] {
        return stored_has("LOGNAME=");
    }));
    client->type("alice\r");
    client->shown_until("Password: ");
    client->type("wrong\r");
    EXPECT_NE(client->shown_until("login: ").find("Login incorrect"),
              std::string::npos);
    EXPECT_TRUE(stored_has("LOGSUCC=0"));
}

TEST_F(TelnetdLogin, what_reads_the_network_has_no_rights)
{
    start();
    ASSERT_TRUE(log_in());
    const std::string pid = keeper();
    EXPECT_EQ(status_of(pid, "Uid"), "4400\t4400\t4400\t4400");
    EXPECT_EQ(status_of(pid, "Gid"), "4400\t4400\t4400\t4400");
    EXPECT_EQ(status_of(pid, "Groups"), " ");
    EXPECT_EQ(status_of(pid, "CapPrm"), "0000000000000000");
    EXPECT_EQ(status_of(pid, "NoNewPrivs"), "1");
    EXPECT_EQ(status_of(pid, "Seccomp"), "2");
    EXPECT_EQ(fs::read_symlink("/proc/" + pid + "/root"),
              path("/mng/tty/.empty"));
    std::vector<std::string> open;
    for (const auto &one : fs::directory_iterator("/proc/" + pid + "/fd")) {
        const std::string name = fs::read_symlink(one.path()).string();
        open.push_back(name.substr(0, name.find('[')));
    }
    std::sort(open.begin(), open.end());
    // Connection and bell; its signals.
    EXPECT_EQ(open, (std::vector<std::string>{
                        "/dev/null", "/dev/null", "/dev/null", "/dev/ptmx",
                        "anon_inode:", "socket:", "socket:"}));
}

TEST_F(TelnetdLogin, reads_no_network_as_root)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"nobody-of-this-name", "no such user: nobody-of-this-name"},
        {"root", "root has root's rights"}};
    for (const auto &[user, why] : cases) {
        int code = -1;
        const std::string text = output_of(
            TTYLINE_TELNETD_PATH,
            {"--port", "2323", "--allow", "127.0.0.1", "--network-user", user},
            "", &code);
        EXPECT_EQ(code, 2);
        EXPECT_NE(text.find(why), std::string::npos) << text;
    }
}

// It is of another user than the daemon since it was confined.
TEST_F(TelnetdLogin, what_reads_the_network_ends_with_its_daemon)
{
    start();
    ASSERT_TRUE(log_in());
    const pid_t pid = std::stoi(keeper());
    kill(daemon->pid(), SIGKILL);
    daemon->exit_code();
    daemon.reset();
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
    EXPECT_TRUE(client->ends());
}

TEST_F(TelnetdLogin, client_that_leaves_hangs_its_session_up)
{
    start();
    ASSERT_TRUE(log_in());
    run("echo $$ >pid");
    const pid_t shell = std::stoi(content_of("/home/alice/pid"));
    client.reset();
    EXPECT_TRUE(eventually([&] {
        return !process_runs(shell) && inetd->cleans() == 1;
    }));
    EXPECT_TRUE(eventually([&] {
        return stored_has("SESSIONID=0");
    }));
}

TEST_F(TelnetdLogin, session_is_closed_when_the_daemon_ends_before_its_program)
{
    start();
    ASSERT_TRUE(log_in());
    run("trap '' HUP; echo $$ >pid");
    const pid_t shell = std::stoi(content_of("/home/alice/pid"));
    client->type("echo on; exec sleep 1000\r");
    client->shown_until("\r\non\r\n");
    kill(daemon->pid(), SIGTERM);
    daemon->exit_code();
    daemon.reset();
    EXPECT_TRUE(eventually([&] {
        return !process_runs(shell);
    }));
    EXPECT_TRUE(eventually([&] {
        return content_of("/home/noted").find("close_session alice") !=
               std::string::npos;
    }));
}

TEST_F(TelnetdLogin, program_is_run_for_the_user_who_logged_in)
{
    start({"--program", "/usr/bin/id", "-un"});
    connect();
    client->shown_until("login: ");
    client->type("alice\r");
    client->shown_until("Password: ");
    client->type("open sesame\r");
    EXPECT_NE(client->shown_until("alice\r\n").find("alice\r\n"),
              std::string::npos);
    EXPECT_TRUE(client->ends());
}
