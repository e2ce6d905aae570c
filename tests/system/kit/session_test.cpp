// What a session's program or function finds, and what the daemon is told.
#include <pwd.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/system/kit/kit_daemon.h"

class KitSession : public KitTest
{
  protected:
    void SetUp() override
    {
        KitTest::SetUp();
        unix_path = console();
        service = service_on(unix_path);
        told = path("/told");
        service.context = &told;
    }

    // All that a command prints on a line of its own.
    std::string output_of_command(const char *command)
    {
        program[2] = command;
        service.program = program;
        start({&service});
        const int client = client_of(service);
        EXPECT_GE(client, 0);
        std::string text = all_of(client);
        close(client);
        return text;
    }

    std::string output_of_function(int (*function)(const kit_session *, void *))
    {
        service.function = function;
        start({&service});
        const int client = client_of(service);
        EXPECT_GE(client, 0);
        std::string text = all_of(client);
        close(client);
        return text;
    }

    // Lines that a callback has written, see tell().
    std::vector<std::string> told_lines() const
    {
        std::ifstream file(told);
        std::vector<std::string> lines;
        std::string line;
        while (std::getline(file, line)) {
            lines.push_back(line);
        }
        return lines;
    }

    const char *program[4] = {"/bin/sh", "-c", nullptr, nullptr};
    std::string unix_path;
    std::string told;
    kit_service service = {};
};

// In the daemon: a line for the test.
static void tell(void *context, const std::string &line)
{
    std::ofstream file(*static_cast<std::string *>(context), std::ios::app);
    file << line << "\n";
}

static int show_terminal(const kit_session *session, void *)
{
    char name[64] = "";

    ttyname_r(0, name, sizeof name);
    printf("%s %s %s\n", name, session->device,
           getsid(0) == getpid() && tcgetpgrp(0) == getpid() ? "leader"
                                                             : "no leader");
    return 0;
}

TEST_F(KitSession, function_runs_on_a_terminal_of_its_own)
{
    const std::string text = output_of_function(show_terminal);
    const std::string device = text.substr(0, text.find(' '));
    EXPECT_EQ(device.find("/dev/pts/"), 0u) << text;
    EXPECT_EQ(text, device + " " + device + " leader\r\n");
}

static int show_modes(const kit_session *, void *)
{
    termios modes;
    winsize size = {};

    tcgetattr(0, &modes);
    ioctl(0, TIOCGWINSZ, &size);
    const tcflag_t local = ICANON | ISIG | IEXTEN | ECHO | ECHOE | ECHOK;
    printf("%d %d %d %dx%d\n", (modes.c_lflag & local) == local,
           (modes.c_iflag & (ICRNL | IXON | IXOFF)) == (ICRNL | IXON),
           (modes.c_oflag & (OPOST | ONLCR)) == (OPOST | ONLCR), size.ws_row,
           size.ws_col);
    return 0;
}

TEST_F(KitSession, terminal_is_sane_and_has_a_size)
{
    EXPECT_EQ(output_of_function(show_modes), "1 1 1 24x80\r\n");
}

TEST_F(KitSession, what_was_typed_ahead_is_edited_and_echoed_like_all_else)
{
    service.program = program;
    program[2] = "sleep 0.3; head -n 1 >/dev/null; echo seen";
    start({&service});
    const int client = client_of(service);
    ASSERT_TRUE(write_all(client, "wrogn\177\177ng\r"));
    const std::string text = all_of(client);
    EXPECT_EQ(text, "wrogn\b \b\b \bng\r\nseen\r\n");
    close(client);
}

TEST_F(KitSession, program_finds_signals_as_they_are_by_default)
{
    const std::string text = output_of_command(
        "grep -E '^Sig(Blk|Ign)' /proc/self/status; echo end");
    EXPECT_EQ(text, "SigBlk:\t0000000000000000\r\n"
                    "SigIgn:\t0000000000000000\r\nend\r\n");
}

// The listing's own descriptor is the fourth.
TEST_F(KitSession, program_has_no_descriptor_but_its_terminal)
{
    EXPECT_EQ(output_of_command("exec ls -1 /proc/self/fd"),
              "0\r\n1\r\n2\r\n3\r\n");
}

TEST_F(KitSession, keeper_has_nothing_but_the_connection_and_the_terminal)
{
    service.program = program;
    program[2] = "exec sleep 60";
    start({&service});
    const int first = client_of(service);
    const int second = client_of(service);
    EXPECT_TRUE(eventually([&] {
        return ask("status").find(" sessions=2 ") != std::string::npos;
    }));
    EXPECT_TRUE(eventually([&] {
        for (const pid_t keeper : daemon->children()) {
            std::string kinds;
            const std::string directory =
                "/proc/" + std::to_string(keeper) + "/fd";
            int sockets = 0;
            int masters = 0;
            int others = 0;
            for (const auto &entry :
                 std::filesystem::directory_iterator(directory)) {
                std::error_code gone;
                const std::string target =
                    std::filesystem::read_symlink(entry.path(), gone);
                sockets += target.find("socket:") == 0;
                masters += target == "/dev/ptmx" || target == "/dev/pts/ptmx";
                others += target.find("signalfd") != std::string::npos ||
                          target == "/dev/null";
            }
            // Connection, bell, system log; master; signals, three streams.
            if (sockets != 3 || masters != 1 || others != 4) {
                return false;
            }
        }
        return daemon->children().size() == 2;
    }));
    close(first);
    close(second);
}

TEST_F(KitSession, daemon_holds_two_descriptors_a_session)
{
    service.program = program;
    program[2] = "exec sleep 60";
    start({&service});
    const size_t before = daemon->descriptors().size();
    const int client = client_of(service);
    EXPECT_TRUE(eventually([&] {
        return word_of(ask("sessions"), "pid") > "0" &&
               daemon->settles_at(before + 2);
    }));
    close(client);
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
    EXPECT_TRUE(daemon->settles_at(before));
    EXPECT_TRUE(daemon->has_no_children());
}

// What the daemon's own code prints must not reach a socket of the kit's.
TEST_F(KitSession, streams_that_the_daemon_does_not_have_lead_nowhere)
{
    program[2] = "echo well; exec cat";
    service.program = program;
    beforehand = [] {
        for (int fd = 0; fd <= 2; fd++) {
            close(fd);
        }
    };
    start({&service});
    for (const char *fd : {"0", "1", "2"}) {
        const std::string link =
            "/proc/" + std::to_string(daemon->pid()) + "/fd/" + fd;
        EXPECT_EQ(std::filesystem::read_symlink(link), "/dev/null");
    }
    const int client = client_of(service);
    EXPECT_EQ(read_until(client, "well\r\n"), "well\r\n");
    close(client);
}

TEST_F(KitSession, program_gets_the_environment_of_a_login)
{
    const char *further[] = {"COLOUR=green", nullptr};
    service.environment = further;
    service.term = "linux";
    setenv("SECRET_OF_THE_DAEMON", "1", 1);
    const passwd *user = getpwuid(getuid());
    ASSERT_NE(user, nullptr);
    const std::string text = output_of_command(
        "echo $TERM $COLOUR $USER $LOGNAME $HOME $SHELL $TTYNUM $PROTOCOL "
        "$CONN_TYPE $TTYTYPE [$TMPDIR$SECRET_OF_THE_DAEMON] $PWD");
    const std::string name = user->pw_name;
    EXPECT_EQ(text, "linux green " + name + " " + name + " " + user->pw_dir +
                        " " + user->pw_shell + " 258 7 1 0 [] " + user->pw_dir +
                        "\r\n");
}

TEST_F(KitSession, program_starts_where_the_service_says)
{
    service.directory = "/usr/lib";
    EXPECT_EQ(output_of_command("pwd"), "/usr/lib\r\n");
}

TEST_F(KitSession, program_is_told_the_name_that_it_is_called_by)
{
    service.argv0 = "-shell";
    EXPECT_EQ(output_of_command("echo $0"), "-shell\r\n");
}

TEST_F(KitSession, program_gets_the_limit_that_the_daemon_was_started_with)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 777;
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(output_of_command("ulimit -Sn; umask"), "777\r\n0022\r\n");
}

TEST_F(KitSession, program_that_cannot_be_run_says_so)
{
    const char *missing[] = {"/nowhere/program", nullptr};
    service.program = missing;
    start({&service});
    const int client = client_of(service);
    EXPECT_EQ(all_of(client), "ttyline: /nowhere/program: No such file or "
                              "directory\r\r\n");
    close(client);
}

TEST_F(KitSession, program_runs_as_the_user_of_the_service)
{
    const passwd *nobody = getpwnam("nobody");
    if (getuid() != 0 || nobody == nullptr) {
        GTEST_SKIP() << "only root becomes somebody else";
    }
    service.user = "nobody";
    EXPECT_EQ(output_of_command("id -un; stat -c %U $(tty); echo $USER"),
              "nobody\r\nnobody\r\nnobody\r\n");
}

TEST_F(KitSession, function_reads_its_line_and_its_context)
{
    service.function = [](const kit_session *session, void *context) {
        printf("%d %zu %s %s %s\n", session->line, strlen(session->id),
               session->peer, session->label,
               static_cast<std::string *>(context)->c_str());
        return 0;
    };
    start({&service});
    const int client = client_of(service);
    EXPECT_EQ(all_of(client), "258 16 uid " + std::to_string(getuid()) +
                                  " ins " + told + "\r\n");
    close(client);
}

TEST_F(KitSession, begin_and_end_are_told_with_process_and_status)
{
    program[2] = "exit 7";
    service.program = program;
    service.began = [](const kit_session *s, void *context) {
        tell(context,
             "began " + std::to_string(s->line) + " " +
                 (s->pid > 0 && s->keeper_pid > 0 && s->keeper_pid != s->pid
                      ? "pids"
                      : "none") +
                 " " + std::string(s->device).substr(0, 9));
    };
    service.ended = [](const kit_session *s, int status, void *context) {
        tell(context,
             "ended " + std::to_string(s->line) + " " + std::to_string(status));
    };
    start({&service});
    const int client = client_of(service);
    all_of(client);
    EXPECT_TRUE(eventually([&] {
        return told_lines().size() == 2;
    }));
    ASSERT_EQ(told_lines().size(), 2u);
    EXPECT_EQ(told_lines()[0], "began 258 pids /dev/pts/");
    EXPECT_EQ(told_lines()[1], "ended 258 " + std::to_string(7 << 8));
    close(client);
}

TEST_F(KitSession, each_callback_gets_the_service_that_was_connected_to)
{
    const int port = free_port(AF_INET);
    const int other_port = port + 1;
    kit_service first = service_on(unix_path);
    first.path = nullptr;
    first.port = port;
    first.protocol = 6;
    first.name = "first";
    first.context = &told;
    first.function = [](const kit_session *session, void *) {
        printf("%s\n", session->service->name);
        return 0;
    };
    first.began = [](const kit_session *s, void *context) {
        tell(context, s->service->name);
    };
    kit_service second = first;
    second.name = "second";
    second.port = other_port;
    start({&first, &second, [&] {
               service.function = first.function;
               service.name = "path";
               service.began = first.began;
               return &service;
           }()});
    for (const kit_service *each : {&second, &first}) {
        for (const int family : {AF_INET, AF_INET6}) {
            const int client = connect_port(family, each->port);
            EXPECT_EQ(all_of(client), std::string(each->name) + "\r\n");
            close(client);
        }
    }
    const int client = client_of(service);
    EXPECT_EQ(all_of(client), "path\r\n");
    close(client);
    EXPECT_TRUE(eventually([&] {
        return told_lines().size() == 5;
    }));
    EXPECT_EQ(told_lines(), (std::vector<std::string>{
                                "second", "second", "first", "first", "path"}));
}

TEST_F(KitSession, connection_type_is_that_of_the_family)
{
    program[2] = "echo $CONN_TYPE";
    service.program = program;
    service.path = nullptr;
    service.protocol = 6;
    service.port = free_port(AF_INET);
    start({&service});
    for (const int family : {AF_INET, AF_INET6}) {
        const int client = connect_port(family, service.port);
        EXPECT_EQ(all_of(client), std::to_string(family) + "\r\n");
        close(client);
    }
}

TEST_F(KitSession, output_of_the_daemon_is_not_the_sessions)
{
    service.function = [](const kit_session *, void *) {
        printf("mine");
        return 0;
    };
    service.admit = [](const kit_session *, char *, size_t, void *) {
        printf("the daemon's, with no line end");
        return 0;
    };
    start({&service});
    const int client = client_of(service);
    EXPECT_EQ(all_of(client), "mine");
    close(client);
}

// ---- What lines share. ----

TEST_F(KitSession, messages_go_through_the_daemon)
{
    service.function = [](const kit_session *session, void *) {
        char text[64];
        kit_send(session, "ping", 4);
        const ssize_t got = kit_receive(session, text, sizeof text);
        printf("%.*s\n", static_cast<int>(got), text);
        return 0;
    };
    service.received = [](const kit_session *from, const void *data,
                          size_t length, void *) {
        const std::string text(static_cast<const char *>(data), length);
        const std::string answer = text + " pong";
        kit_post(from->line, answer.data(), answer.size());
    };
    start({&service});
    const int client = client_of(service);
    EXPECT_EQ(all_of(client), "ping pong\r\n");
    close(client);
}

TEST_F(KitSession, message_that_was_sent_last_is_received)
{
    service.function = [](const kit_session *session, void *) {
        return kit_send(session, "last words", 10);
    };
    service.received = [](const kit_session *, const void *data, size_t length,
                          void *context) {
        tell(context, std::string(static_cast<const char *>(data), length));
    };
    service.ended = [](const kit_session *, int, void *context) {
        tell(context, "ended");
    };
    start({&service});
    const int client = client_of(service);
    all_of(client);
    EXPECT_TRUE(eventually([&] {
        return told_lines() == std::vector<std::string>{"last words", "ended"};
    }));
    close(client);
}

TEST_F(KitSession, session_that_takes_no_message_makes_nobody_wait)
{
    service.function = [](const kit_session *session, void *) {
        kit_send(session, "go", 2);
        sleep(60);
        return 0;
    };
    service.received = [](const kit_session *from, const void *, size_t,
                          void *context) {
        const std::string message(4096, 'm');
        int posted = 0;
        while (posted < 100000 &&
               kit_post(from->line, message.data(), message.size()) == 0) {
            posted++;
        }
        tell(context, posted > 0 && posted < 100000 && errno == EAGAIN
                          ? "full"
                          : "other");
    };
    start({&service});
    const int client = client_of(service);
    EXPECT_TRUE(eventually([&] {
        return told_lines() == std::vector<std::string>{"full"};
    }));
    EXPECT_NE(ask("status").find("ok\n"), std::string::npos);
    close(client);
}

TEST_F(KitSession, function_that_floods_the_daemon_holds_nobody_up)
{
    service.function = [](const kit_session *session, void *) {
        const std::string message(4096, 'm');
        while (kit_send(session, message.data(), message.size()) == 0) {
        }
        return 0;
    };
    kit_service calm = service_on(path("/calm"));
    const std::string calm_path = path("/calm");
    const char *cat[] = {"/bin/cat", nullptr};
    calm.path = calm_path.c_str();
    calm.program = cat;
    start({&service, &calm});
    const int loud = client_of(service);
    const int client = client_of(calm);
    ASSERT_TRUE(write_all(client, "hello\n"));
    EXPECT_EQ(read_until(client, "hello\r\nhello\r\n"), "hello\r\nhello\r\n");
    close(client);
    close(loud);
}

TEST_F(KitSession, message_that_is_too_long_is_refused)
{
    service.function = [](const kit_session *session, void *) {
        const std::string message(4097, 'm');
        printf("%d %s\n", kit_send(session, message.data(), message.size()),
               kit_error());
        return 0;
    };
    start({&service});
    const int client = client_of(service);
    EXPECT_EQ(all_of(client), "-1 a message has 1 to 4096 bytes\r\n");
    close(client);
}
