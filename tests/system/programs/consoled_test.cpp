// The login daemon at work: in-path sessions, and listeners changed through the
// control socket.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
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

#include "tests/system/programs/consoled_run.h"

TEST_F(Consoled, runs_the_line_console_for_an_in_path_client)
{
    start({"--inpath", path("/inpath"), "--term", "vt220"});
    const tty_cmsg request = permit_next();
    EXPECT_EQ(request.vc_flag, 0x080u);
    EXPECT_EQ(request.protocol, 7);
    EXPECT_EQ(request.path, path("/inpath"));

    int client = -1;
    const int pid = log_in_path(&client);
    ASSERT_GT(pid, 0);
    const std::string greeting = read_until(client, "rl-con 300> ");
    EXPECT_EQ(greeting.find("line 300 on /dev/pts/"), 0u) << greeting;
    EXPECT_NE(greeting.find(", peer ins;"), std::string::npos) << greeting;
    ASSERT_TRUE(write_all(client, "set LOGNAME alice\r"));
    read_until(client, "stored\r\nrl-con 300> ");
    const std::string info = content(path("/mng/tty/.tty_info_300"));
    EXPECT_NE(info.find("LOGNAME=alice\r\n"), std::string::npos) << info;
    EXPECT_NE(info.find("TTYDEV=/dev/pts/"), std::string::npos) << info;

    ASSERT_TRUE(write_all(client, "shell\necho $TERM.$TTYNUM.$PROTOCOL.\n"));
    const std::string shell = read_until(client, "vt220.300.7.\r\n");
    EXPECT_NE(shell.find("vt220.300.7.\r\n"), std::string::npos) << shell;
    ASSERT_TRUE(write_all(client, "exit\n"));
    read_until(client, "rl-con 300> ");
    ASSERT_TRUE(write_all(client, "exit\n"));
    EXPECT_TRUE(ended(client));
    close(client);
    const auto clean = connection.receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->vc_flag, 0x002u);
    EXPECT_EQ(clean->ttyno, 300);
    EXPECT_EQ(clean->pid, pid);
    EXPECT_TRUE(eventually([&] {
        return kill(pid, 0) != 0; // reaped as well
    }));
}

// In a session whose terminal something else holds open, no end of file tells
// the loop.
TEST_F(Consoled, notices_the_end_of_the_console_when_its_terminal_stays_open)
{
    start({"--inpath", path("/inpath")});
    permit_next();
    int client = -1;
    const int pid = log_in_path(&client);
    ASSERT_GT(pid, 0);
    const std::string greeting = read_until(client, "rl-con 300> ");
    const size_t at = greeting.find("/dev/pts/");
    ASSERT_NE(at, std::string::npos) << greeting;
    const std::string device = greeting.substr(at, greeting.find(',', at) - at);
    const int held = open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(held, 0) << device;
    ASSERT_TRUE(write_all(client, "exit\n"));
    EXPECT_TRUE(ended(client));
    const auto clean = connection.receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->pid, pid);
    close(held);
    close(client);
}

TEST_F(Consoled, ends_the_line_console_of_a_client_that_hangs_up)
{
    start({"--inpath", path("/inpath")});
    permit_next();
    int client = -1;
    const int pid = log_in_path(&client);
    ASSERT_GT(pid, 0);
    read_until(client, "rl-con 300> ");
    close(client);
    const auto clean = connection.receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->vc_flag, 0x002u);
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
}

TEST_F(Consoled, announces_port_path_and_line_console)
{
    const int port = free_port(AF_INET);
    start({"--inpath", path("/inpath"), "--port", std::to_string(port),
           "--no-ipv6", "--allow", "any", "--path", path("/console")});
    for (const int protocol : {6, 7, 7}) {
        const auto request = connection.receive();
        ASSERT_TRUE(request);
        EXPECT_EQ(request->protocol, protocol);
    }
    EXPECT_TRUE(catches_sigchld());
}

// What is typed there may be a password.
TEST_F(Consoled, writes_nothing_of_the_line_console_to_the_dump_log)
{
    start({"--inpath", path("/inpath")});
    permit_next();
    int client = -1;
    ASSERT_GT(log_in_path(&client), 0);
    read_until(client, "rl-con 300> ");
    ASSERT_TRUE(write_all(client, "set PEERNAME hushed\r"));
    read_until(client, "stored\r\nrl-con 300> ");
    const std::string log = content(path("/mng/tty/.vc_dump.txt"));
    EXPECT_NE(log.find("alloc"), std::string::npos);
    EXPECT_EQ(log.find("hushed"), std::string::npos);
    close(client);
}

TEST_F(Consoled, lets_only_its_user_open_the_control_socket)
{
    start_on_port();
    struct stat status = {};
    ASSERT_EQ(lstat(control_path().c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(Consoled, leaves_a_control_socket_in_use_alone_and_replaces_a_dead_one)
{
    const int port = start_on_port();
    int code = -1;
    const std::string text =
        output_of(CONSOLED_PATH,
                  {"--no-authentication", "--path", path("/other"), "--control",
                   control_path()},
                  "", &code);
    EXPECT_EQ(code, 1);
    EXPECT_NE(text.find("is in use"), std::string::npos) << text;
    EXPECT_EQ(control("open 6"), "ok\n");

    daemon.reset();
    start({"--port", std::to_string(port), "--no-ipv6", "--allow", "127.0.0.1",
           "--control", control_path()});
    EXPECT_EQ(control("open 6"), "ok\n");
}

TEST_F(Consoled, moves_a_port_with_the_consent_of_the_inetd)
{
    const int old_port = start_on_port();
    const int new_port = free_port(AF_INET);
    EXPECT_EQ(control("port 6 " + std::to_string(old_port) + " " +
                      std::to_string(new_port)),
              "ok\n");
    const auto change = connection.receive();
    ASSERT_TRUE(change);
    tty_cmsg expected = {};
    expected.vc_flag = 0x400;
    expected.socktype = 2;
    expected.port = old_port;
    expected.protocol = 6;
    expected.pid = daemon->pid();
    expected.peer_port = new_port;
    EXPECT_EQ(memcmp(&*change, &expected, sizeof expected), 0);
    EXPECT_FALSE(port_listens(AF_INET, old_port));
    EXPECT_FALSE(port_listens(AF_INET, new_port));

    tty_cmsg permit = expected;
    permit.vc_flag = 0x400 | 0x008;
    permit.port = new_port;
    permit.peer_port = 0;
    permit.tos = -1;
    ASSERT_TRUE(connection.send(permit));
    EXPECT_TRUE(listens(new_port));
    const int client = connect_port(AF_INET, new_port);
    EXPECT_GE(client, 0);
    const auto report = connection.receive();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->vc_flag, 0x001u);
    EXPECT_EQ(report->port, new_port);
    close(client);
}

TEST_F(Consoled, stops_a_service_and_announces_it_again)
{
    const int port = start_on_port();
    EXPECT_EQ(control("stop 6"), "ok\n");
    EXPECT_FALSE(port_listens(AF_INET, port));
    EXPECT_EQ(control("open 6"), "ok\n");
    // The first record since: nothing was said about the stop.
    const tty_cmsg request = permit_next();
    EXPECT_EQ(request.vc_flag, 0x008u);
    EXPECT_EQ(request.port, port);
    EXPECT_EQ(request.pid, daemon->pid());
    EXPECT_TRUE(listens(port));
}

// The IPv4 listener's TOS, on a copy of the daemon's descriptor.
static int tos_of_listener(pid_t pid, int port)
{
    const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    int found = -1;

    for (int fd = 0; fd < 64 && found < 0; fd++) {
        const int copy =
            static_cast<int>(syscall(SYS_pidfd_getfd, process, fd, 0));
        sockaddr_in address = {};
        socklen_t length = sizeof address;
        int listening = 0;
        socklen_t size = sizeof listening;
        if (getsockopt(copy, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) ==
                0 &&
            listening != 0 &&
            getsockname(copy, reinterpret_cast<sockaddr *>(&address),
                        &length) == 0 &&
            address.sin_family == AF_INET && ntohs(address.sin_port) == port) {
            size = sizeof found;
            getsockopt(copy, IPPROTO_IP, IP_TOS, &found, &size);
        }
        if (copy >= 0) {
            close(copy);
        }
    }
    close(process);
    return found;
}

TEST_F(Consoled, sets_the_tos_of_a_listener)
{
    const int port = start_on_port();
    EXPECT_EQ(control("tos 6 2 184"), "ok\n");
    EXPECT_EQ(tos_of_listener(daemon->pid(), port), 184);
    EXPECT_EQ(control("tos 6 2 0"), "ok\n");
    EXPECT_EQ(tos_of_listener(daemon->pid(), port), 0);
}

TEST_F(Consoled, says_why_a_tos_cannot_be_set)
{
    start_on_port();
    EXPECT_EQ(control("tos 6 10 8"),
              "error: no service of this protocol and family\n");
    EXPECT_EQ(control("stop 6"), "ok\n");
    EXPECT_EQ(control("tos 6 2 8"), "error: the service does not listen\n");
}

TEST_F(Consoled, answers_bad_commands_and_goes_on)
{
    start_on_port();
    const int client = connect_control();
    const std::string unknown = "error: unknown command, try help\n";
    EXPECT_EQ(ask(client, ""), unknown);
    EXPECT_EQ(ask(client, "frob"), unknown);
    EXPECT_EQ(ask(client, "OPEN 6"), unknown);
    EXPECT_EQ(ask(client, std::string("open\0 6", 7)), unknown);
    EXPECT_EQ(ask(client, "help me"), "error: usage: help\n");
    EXPECT_EQ(ask(client, "open"), "error: usage: open PROTOCOL\n");
    EXPECT_EQ(ask(client, "stop 6 6"), "error: usage: stop PROTOCOL\n");
    EXPECT_EQ(ask(client, "port 6 1"), "error: usage: port PROTOCOL OLD NEW\n");
    const std::string no_service = "error: no service of this protocol\n";
    for (const char *protocol :
         {"7", "x", "-6", "6x", "99999999999", "4294967302"}) {
        EXPECT_EQ(ask(client, std::string("stop ") + protocol), no_service);
    }
    const std::string no_port = "error: a port is 1 to 65535\n";
    for (const char *ports : {"0 23", "23 0", "-1 23", "23 65536", "23 x"}) {
        EXPECT_EQ(ask(client, std::string("port 6 ") + ports), no_port);
    }
    EXPECT_EQ(ask(client, "tos 6 1 8"),
              "error: a family is 2 (IPv4) or 10 (IPv6)\n");
    EXPECT_EQ(ask(client, "tos 6 2 256"), "error: a value is 0 to 255\n");
    EXPECT_EQ(ask(client, "tos 6 2 -1"), "error: a value is 0 to 255\n");
    EXPECT_EQ(ask(client, std::string(5000, 'x')), "error: line too long\n");
    EXPECT_EQ(ask(client, " open\t6 \r"), "ok\n");
    close(client);
}

TEST_F(Consoled, explains_its_commands)
{
    start_on_port();
    const int client = connect_control();
    ASSERT_TRUE(write_all(client, "help\n"));
    const std::string text = read_until(client, "\nok\n");
    for (const char *line :
         {"open PROTOCOL  ", "stop PROTOCOL  ", "port PROTOCOL OLD NEW  ",
          "tos PROTOCOL FAMILY VALUE  ", "kick LINE [REASON...]  "}) {
        EXPECT_NE(text.find(line), std::string::npos) << text;
    }
    close(client);
}

TEST_F(Consoled, takes_several_commands_of_one_client)
{
    start_on_port();
    const int client = connect_control();
    ASSERT_TRUE(write_all(client, "stop 6\nstop 7\nopen 6\n"));
    EXPECT_EQ(
        read_until(client, "ok\nerror: no service of this protocol\nok\n"),
        "ok\nerror: no service of this protocol\nok\n");
    close(client);
}

TEST_F(Consoled, does_not_obey_a_command_without_its_end)
{
    const int port = start_on_port();
    const int client = connect_control();
    ASSERT_TRUE(write_all(client, "stop 6"));
    close(client);
    EXPECT_EQ(control("open 6"), "ok\n");
    EXPECT_TRUE(port_listens(AF_INET, port));
}

TEST_F(Consoled, survives_control_clients_that_vanish)
{
    start_on_port();
    for (int i = 0; i < 50; i++) {
        const int client = connect_control();
        // Closed with answers unread: the next one meets a lost connection.
        write_all(client, "help\nhelp\nopen 6\nopen ");
        close(client);
    }
    EXPECT_EQ(control("open 6"), "ok\n");
}

TEST_F(Consoled, drops_a_control_client_that_is_silent)
{
    start_on_port();
    const int silent = connect_control();
    EXPECT_EQ(ask(silent, "open 6"), "ok\n");
    EXPECT_EQ(control("open 6"), "ok\n");
    EXPECT_TRUE(ended(silent));
    close(silent);
}

TEST_F(Consoled, drops_a_control_client_that_reads_no_answer)
{
    start_on_port();
    const int deaf = connect_control();
    std::string many;
    for (int i = 0; i < 1000; i++) {
        many += "help\n";
    }
    // Until the way there is full as well: answers are longer than commands.
    for (int i = 0; i < 1000; i++) {
        if (send(deaf, many.data(), many.size(), MSG_NOSIGNAL | MSG_DONTWAIT) <
            0) {
            break;
        }
    }
    EXPECT_EQ(control("open 6"), "ok\n");
    close(deaf);
}

TEST_F(Consoled, obeys_while_there_is_no_inetd)
{
    const int port = free_port(AF_INET);
    inetd.reset();
    launch({"--port", std::to_string(port), "--no-ipv6", "--allow", "127.0.0.1",
            "--control", control_path()});
    EXPECT_EQ(control("stop 6"), "ok\n");
    const int moved = free_port(AF_INET);
    EXPECT_EQ(
        control("port 6 " + std::to_string(port) + " " + std::to_string(moved)),
        "ok\n");
    EXPECT_EQ(control("open 6"), "ok\n");
    inetd = std::make_unique<FakeInetd>();
    connection = inetd->accept();
    const tty_cmsg request = permit_next();
    EXPECT_EQ(request.port, moved);
    EXPECT_TRUE(listens(moved));
}

// A handler on the control thread would not interrupt the loop's wait.
TEST_F(Consoled, keeps_signals_out_of_the_control_thread)
{
    start_on_port();
    EXPECT_EQ(control("open 6"), "ok\n");
    const std::string tasks =
        "/proc/" + std::to_string(daemon->pid()) + "/task";
    int open_to_sigchld = 0;
    int closed = 0;
    for (const auto &task : std::filesystem::directory_iterator(tasks)) {
        const std::string status = content(task.path() / "status");
        const std::string mark = "SigBlk:";
        const unsigned long long blocked = std::stoull(
            status.substr(status.find(mark) + mark.size()), nullptr, 16);
        const bool blocks = (blocked >> (SIGCHLD - 1) & 1) != 0;
        (blocks ? closed : open_to_sigchld)++;
    }
    EXPECT_EQ(open_to_sigchld, 1);
    EXPECT_GE(closed, 1);
}
