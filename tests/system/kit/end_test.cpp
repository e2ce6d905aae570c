// How sessions end: nothing that was printed is lost, nothing that ran stays.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/system/kit/kit_daemon.h"

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

class KitEnd : public KitTest
{
  protected:
    // A shell command as the session's program.
    void run(const char *command)
    {
        program[2] = command;
        service = service_on(unix_path = console());
        service.program = program;
        directory = "OLD=" + root_;
        environment[0] = directory.c_str();
        service.environment = environment;
    }

    void run_on_port(const char *command)
    {
        run(command);
        service.path = nullptr;
        service.protocol = 6;
        service.families = KIT_IPV4;
        service.port = free_port(AF_INET);
    }

    int begin()
    {
        start({&service});
        const int client = client_of(service);
        EXPECT_GE(client, 0);
        return client;
    }

    static std::string number_in(const std::string &file)
    {
        std::ifstream stream(file);
        std::string word;
        stream >> word;
        return word;
    }

    // The process number that a session has written to a file.
    pid_t pid_in(const std::string &file) const
    {
        EXPECT_TRUE(eventually([&] {
            return !number_in(path(file)).empty();
        }));
        return std::stoi("0" + number_in(path(file)));
    }

    const char *program[4] = {"/bin/sh", "-c", nullptr, nullptr};
    const char *environment[2] = {nullptr, nullptr};
    std::string directory;
    std::string unix_path;
    kit_service service = {};
};

static int64_t since(Clock::time_point begin)
{
    return std::chrono::duration_cast<milliseconds>(Clock::now() - begin)
        .count();
}

static const char PRINT_1_MIB[] =
    "stty -opost; head -c 1048576 /dev/zero | tr '\\0' x";

TEST_F(KitEnd, last_mib_of_a_program_that_has_ended_reaches_a_slow_client)
{
    run(PRINT_1_MIB);
    const int client = begin();
    std::this_thread::sleep_for(milliseconds(500));
    EXPECT_EQ(all_of(client), std::string(1048576, 'x'));
    close(client);
}

TEST_F(KitEnd, session_in_which_nothing_moves_is_ended_and_told)
{
    run("echo begun; while read line; do echo $line; done");
    service.idle_ms = 3000;
    const int client = begin();
    read_until(client, "begun\r\n");
    // Whoever types or is shown something is not idle.
    for (int i = 0; i < 4; i++) {
        std::this_thread::sleep_for(milliseconds(1000));
        ASSERT_TRUE(write_all(client, "on\n"));
        const std::string answer = read_until(client, "on\r\non\r\n");
        ASSERT_EQ(answer, "on\r\non\r\n");
    }
    EXPECT_EQ(all_of(client),
              "\r\nttyline: nothing has moved for too long\r\n");
    close(client);
}

TEST_F(KitEnd, last_mib_reaches_a_slow_client_over_tcp)
{
    run_on_port(PRINT_1_MIB);
    const int client = begin();
    std::this_thread::sleep_for(milliseconds(500));
    EXPECT_EQ(all_of(client), std::string(1048576, 'x'));
    close(client);
}

TEST_F(KitEnd, client_that_has_typed_ahead_gets_all_that_was_printed)
{
    run_on_port("echo one; echo two");
    const int client = begin();
    ASSERT_TRUE(write_all(client, std::string(2000, 'y')));
    // The terminal may show what was typed between the two lines.
    std::string text = all_of(client);
    text.erase(std::remove(text.begin(), text.end(), 'y'), text.end());
    EXPECT_EQ(text, "one\r\ntwo\r\n");
    close(client);
}

TEST_F(KitEnd, piped_input_is_answered)
{
    run("exec sh");
    const int client = begin();
    ASSERT_TRUE(write_all(client, "echo answer-$((6*7))\n"));
    shutdown(client, SHUT_WR);
    const std::string text = all_of(client);
    EXPECT_NE(text.find("answer-42\r\n"), std::string::npos) << text;
    close(client);
}

TEST_F(KitEnd, end_of_input_ends_a_line_that_is_not_finished)
{
    run("exec cat");
    const int client = begin();
    ASSERT_TRUE(write_all(client, "no line end"));
    shutdown(client, SHUT_WR);
    const std::string text = all_of(client);
    EXPECT_EQ(text, "no line endno line end") << text;
    close(client);
}

TEST_F(KitEnd, end_of_input_waits_for_a_program_that_reads_later)
{
    run("sleep 0.5; cat; echo done");
    const int client = begin();
    shutdown(client, SHUT_WR);
    const std::string text = all_of(client);
    EXPECT_NE(text.find("done"), std::string::npos) << text;
    close(client);
}

TEST_F(KitEnd, half_closed_session_that_stands_still_is_given_up)
{
    run("stty raw -echo; exec sleep 60");
    service.half_close_ms = 300;
    const int client = begin();
    const auto before = Clock::now();
    shutdown(client, SHUT_WR);
    all_of(client);
    EXPECT_GE(since(before), 250);
    EXPECT_LT(since(before), 10000);
    close(client);
}

// What it prints is only the echo of what the keeper types for its peer.
TEST_F(KitEnd, half_closed_session_that_only_echoes_its_end_stands_still)
{
    run("stty raw -echo; echo up; exec cat");
    service.half_close_ms = 600;
    const int client = begin();
    EXPECT_EQ(read_until(client, "up\n"), "up\n");
    shutdown(client, SHUT_WR);
    const std::string text = all_of(client);
    EXPECT_EQ(text.find("(still open)"), std::string::npos);
    EXPECT_NE(text.find('\4'), std::string::npos);
    close(client);
}

TEST_F(KitEnd, half_closed_session_goes_on_while_it_prints)
{
    run("for i in 1 2 3 4 5 6 7; do echo $i; sleep 1; done; echo over");
    service.half_close_ms = 5000;
    const int client = begin();
    shutdown(client, SHUT_WR);
    const std::string text = all_of(client);
    EXPECT_NE(text.find("over"), std::string::npos) << text;
    close(client);
}

TEST_F(KitEnd, unix_client_that_is_gone_frees_its_line_at_once)
{
    run("exec sleep 60");
    service.half_close_ms = 60000;
    close(begin());
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
}

TEST_F(KitEnd, program_is_hung_up_and_may_save)
{
    run("trap 'echo saved >\"$OLD/saved\"; exit' HUP; echo $$ >\"$OLD/pid\"; "
        "while :; do sleep 0.05; done");
    const int client = begin();
    const pid_t pid = pid_in("/pid");
    close(client);
    EXPECT_TRUE(eventually([&] {
        return number_in(path("/saved")) == "saved";
    }));
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
}

TEST_F(KitEnd, program_that_ignores_the_hang_up_is_ended_by_force)
{
    run("trap '' HUP; echo $$ >\"$OLD/pid\"; while :; do sleep 0.05; done");
    service.hangup_ms = 300;
    const int client = begin();
    const pid_t pid = pid_in("/pid");
    close(client);
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
}

TEST_F(KitEnd, background_job_does_not_survive_its_session)
{
    run("trap '' HUP; sleep 60 >/dev/null 2>&1 & echo $! >\"$OLD/pid\"");
    service.hangup_ms = 300;
    const int client = begin();
    const pid_t pid = pid_in("/pid");
    all_of(client);
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
    close(client);
}

TEST_F(KitEnd, process_with_a_session_of_its_own_survives)
{
    run("setsid sh -c 'echo $$ >\"$OLD/pid\"; exec sleep 60' & "
        "while [ ! -s \"$OLD/pid\" ]; do sleep 0.02; done");
    service.hangup_ms = 300;
    const int client = begin();
    const pid_t pid = pid_in("/pid");
    all_of(client);
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
    EXPECT_TRUE(process_runs(pid));
    kill(pid, SIGKILL);
    close(client);
}

TEST_F(KitEnd, output_that_nobody_takes_is_given_up_in_the_end)
{
    run(PRINT_1_MIB);
    service.drain_ms = 300;
    const int client = begin();
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 0 && daemon->children().size() == 1;
    }));
    // The program still waits for somebody to read: it has not ended.
    std::this_thread::sleep_for(milliseconds(800));
    EXPECT_EQ(inetd->cleans(), 0);
    close(client);
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
}

// A client with a window so small that not even 60,000 bytes fit between the
// two systems.
static int narrow_client(int port)
{
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int small = 1024;
    setsockopt(client, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(
        connect(client, reinterpret_cast<sockaddr *>(&address), sizeof address),
        0);
    return client;
}

static const char PRINT_60000[] =
    "echo $$ >\"$OLD/pid\"; stty -opost; head -c 60000 /dev/zero";

TEST_F(KitEnd, last_output_that_stands_still_is_given_up)
{
    run_on_port(PRINT_60000);
    service.drain_ms = 500;
    start({&service});
    const int client = narrow_client(service.port);
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
    close(client);
}

TEST_F(KitEnd, session_that_drains_can_be_ended)
{
    run_on_port(PRINT_60000);
    service.drain_ms = 60000;
    start({&service});
    const int client = narrow_client(service.port);
    const pid_t pid = pid_in("/pid");
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
    // Long after its program's output has left the keeper.
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(inetd->cleans(), 0);
    EXPECT_EQ(ask("kick 258"), "ok\n");
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
    close(client);
}

// What it has left behind is found by this number.
TEST_F(KitEnd, number_of_a_program_stays_taken_until_its_session_is_over)
{
    run_on_port(PRINT_60000);
    service.drain_ms = 60000;
    start({&service});
    const int client = narrow_client(service.port);
    const pid_t pid = pid_in("/pid");
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(kill(pid, 0), 0);
    close(client);
    EXPECT_TRUE(eventually([&] {
        return kill(pid, 0) != 0 && inetd->cleans() == 1;
    }));
}

TEST_F(KitEnd, client_that_never_reads_costs_nobody_anything)
{
    run("exec yes");
    kit_service echo = service_on(path("/echo"));
    const std::string echo_path = path("/echo");
    const char *cat[] = {"/bin/cat", nullptr};
    echo.path = echo_path.c_str();
    echo.program = cat;
    start({&service, &echo});
    std::vector<int> deaf;
    for (int i = 0; i < 20; i++) {
        deaf.push_back(client_of(service));
    }
    const int client = client_of(echo);
    for (int i = 0; i < 20; i++) {
        const std::string line = "line " + std::to_string(i) + "\n";
        ASSERT_TRUE(write_all(client, line));
        EXPECT_NE(read_until(client, "line " + std::to_string(i) + "\r\nline " +
                                         std::to_string(i) + "\r\n"),
                  "");
    }
    close(client);
    for (const int fd : deaf) {
        close(fd);
    }
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 21;
    }));
}

TEST_F(KitEnd, killed_keeper_leaves_neither_program_nor_identity)
{
    run("trap '' HUP; echo $$ >\"$OLD/pid\"; while :; do sleep 0.05; done");
    const int client = begin();
    const pid_t pid = pid_in("/pid");
    const std::string row = running();
    const pid_t keeper = std::stoi("0" + word_of(row, "keeper"));
    ASSERT_GT(keeper, 0) << row;
    EXPECT_TRUE(stored_has(258, "TTYPID=" + std::to_string(pid)));
    kill(keeper, SIGKILL);
    all_of(client);
    EXPECT_TRUE(eventually([&] {
        return stored_has(258, "TTYPID=-1");
    }));
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
    close(client);
}

TEST_F(KitEnd, killed_daemon_leaves_no_program)
{
    run("echo $$ >\"$OLD/pid\"; exec sleep 60");
    const int client = begin();
    const pid_t pid = pid_in("/pid");
    kill(daemon->pid(), SIGKILL);
    all_of(client);
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
    close(client);
    EXPECT_EQ(daemon->end(), SIGKILL);
}

TEST_F(KitEnd, daemon_that_is_asked_to_end_hangs_its_sessions_up)
{
    run("trap 'echo saved >\"$OLD/saved\"; exit' HUP; echo $$ >\"$OLD/pid\"; "
        "while :; do sleep 0.05; done");
    const int client = begin();
    pid_in("/pid");
    kill(daemon->pid(), SIGTERM);
    const std::string text = all_of(client);
    EXPECT_NE(text.find("the service is shutting down"), std::string::npos)
        << text;
    EXPECT_TRUE(eventually([&] {
        return number_in(path("/saved")) == "saved";
    }));
    EXPECT_TRUE(eventually([&] {
        return !std::filesystem::exists(console()) &&
               !std::filesystem::exists(control_path);
    }));
    EXPECT_EQ(daemon->end(), 0);
    close(client);
}

TEST_F(KitEnd, daemon_that_ends_leaves_no_program_that_ignores_the_hang_up)
{
    run("trap '' HUP; echo $$ >\"$OLD/pid\"; while :; do sleep 0.05; done");
    service.hangup_ms = 60000;
    const int client = begin();
    const pid_t pid = pid_in("/pid");
    kill(daemon->pid(), SIGTERM);
    EXPECT_EQ(daemon->end(), 0);
    EXPECT_TRUE(eventually([&] {
        return !process_runs(pid);
    }));
    EXPECT_TRUE(stored_has(258, "TTYPID=-1"));
    close(client);
    if (process_runs(pid)) {
        kill(pid, SIGKILL);
    }
}
