// Sessions on a machine that is short of something, or on which somebody else
// has his hands.
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/system/kit/kit_daemon.h"

class KitMachine : public KitTest
{
  protected:
    void SetUp() override
    {
        KitTest::SetUp();
        unix_path = console();
        service = service_on(unix_path);
    }

    void run(const char *command)
    {
        program[2] = command;
        service.program = program;
    }

    // A session whose program prints "up", and which the daemon knows.
    int begin()
    {
        start({&service});
        const int client = client_of(service);
        EXPECT_NE(read_until(client, "up\r\n"), "");
        session = running();
        keeper = std::stoi("0" + word_of(session, "keeper"));
        pid = std::stoi("0" + word_of(session, "pid"));
        return client;
    }

    bool is_over() const
    {
        return eventually([&] {
            return inetd->cleans() == 1 && !process_runs(keeper) &&
                   !process_runs(pid);
        });
    }

    const char *program[4] = {"/bin/sh", "-c", nullptr, nullptr};
    std::string unix_path;
    std::string session;
    pid_t keeper = 0;
    pid_t pid = 0;
    kit_service service = {};
};

TEST_F(KitMachine, session_whose_keeper_is_stopped_can_be_ended)
{
    run("echo up; exec sleep 60");
    const int client = begin();
    ASSERT_EQ(kill(keeper, SIGSTOP), 0);
    EXPECT_EQ(ask("kick 258"), "ok\n");
    EXPECT_TRUE(is_over());
    EXPECT_TRUE(eventually([&] {
        return stored_has(258, "TTYPID=-1");
    }));
    EXPECT_EQ(all_of(client), "");
    close(client);
}

// However often it is asked for.
TEST_F(KitMachine, session_that_is_being_ended_keeps_its_time)
{
    run("trap 'sleep 4; echo saved >\"$OLD/saved\"; exit' HUP; echo up; "
        "while :; do sleep 0.05; done");
    const std::string old = "OLD=" + root_;
    const char *environment[] = {old.c_str(), nullptr};
    service.environment = environment;
    service.hangup_ms = 20000;
    const int client = begin();
    EXPECT_EQ(ask("kick 258"), "ok\n");
    all_of(client);
    EXPECT_EQ(ask("kick 258"), "ok\n");
    EXPECT_TRUE(is_over());
    EXPECT_TRUE(std::filesystem::exists(path("/saved")));
    close(client);
}

TEST_F(KitMachine, daemon_that_ends_cleans_the_line_of_a_stopped_keeper)
{
    run("echo up; exec sleep 60");
    const int client = begin();
    ASSERT_EQ(kill(keeper, SIGSTOP), 0);
    kill(daemon->pid(), SIGTERM);
    EXPECT_EQ(daemon->end(), 0);
    EXPECT_TRUE(stored_has(258, "TTYPID=-1"));
    EXPECT_TRUE(eventually([&] {
        return !process_runs(keeper) && !process_runs(pid);
    }));
    close(client);
}
