// Sessions on a machine that is short of something, or on which somebody else
// has his hands.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
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

// ---- As many sessions as there are lines. ----

constexpr size_t ALL_LINES = 1056;
constexpr size_t MOST_BEGINNING = 16;

// Whether the machine has what they need; the reason when it has not.
static std::string no_room()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 3 * ALL_LINES) {
        return "a process may have " + std::to_string(limit.rlim_max) +
               " descriptors only";
    }
    getrlimit(RLIMIT_NPROC, &limit);
    if (limit.rlim_cur < 4 * ALL_LINES) {
        return "a user may have " + std::to_string(limit.rlim_cur) +
               " processes only";
    }
    std::ifstream most_file("/proc/sys/kernel/pty/max");
    std::ifstream used_file("/proc/sys/kernel/pty/nr");
    size_t most = 0;
    size_t used = 0;
    most_file >> most;
    used_file >> used;
    return most < used + ALL_LINES + 50
               ? "the machine has " + std::to_string(most) + " terminals, " +
                     std::to_string(used) + " in use"
               : "";
}

TEST_F(KitMachine, every_line_can_have_a_session_at_once)
{
    const std::string missing = no_room();
    if (!missing.empty()) {
        GTEST_SKIP() << missing;
    }
    run("echo up; read line; echo got $line");
    start({&service});
    const size_t before = daemon->descriptors().size();
    std::vector<int> clients;
    // Some at a time: a keeper has ten seconds to begin.
    for (size_t i = 0; i < ALL_LINES; i++) {
        clients.push_back(client_of(service));
        ASSERT_GE(clients.back(), 0) << i;
        if (i % MOST_BEGINNING == MOST_BEGINNING - 1) {
            for (size_t j = i + 1 - MOST_BEGINNING; j <= i; j++) {
                ASSERT_EQ(read_until(clients[j], "up\r\n"), "up\r\n") << j;
            }
        }
    }
    EXPECT_TRUE(eventually([&] {
        return ask("status").find(" sessions=1056 ") != std::string::npos;
    }));
    EXPECT_NE(ask("sessions").find("\nline=1585 "), std::string::npos);
    for (size_t i = 0; i < ALL_LINES; i++) {
        ASSERT_TRUE(write_all(clients[i], std::to_string(i) + "\n"));
    }
    for (size_t i = 0; i < ALL_LINES; i++) {
        const std::string number = std::to_string(i);
        EXPECT_EQ(all_of(clients[i]), number + "\r\ngot " + number + "\r\n");
        close(clients[i]);
    }
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == static_cast<int>(ALL_LINES);
    }));
    EXPECT_TRUE(daemon->settles_at(before));
    EXPECT_TRUE(daemon->has_no_children());
}

// ---- A machine that lacks something. ----

static bool own_mounts()
{
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

TEST_F(KitMachine, session_needs_no_proc)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root takes /proc away";
    }
    run("trap '' HUP; sleep 60 & echo $! >\"$OLD/job\"; echo up; ls /proc; "
        "exec sleep 60");
    const std::string old = "OLD=" + root_;
    const char *environment[] = {old.c_str(), nullptr};
    service.environment = environment;
    service.hangup_ms = 300;
    beforehand = [] {
        if (!own_mounts() || mount("none", "/proc", "tmpfs", 0, nullptr) != 0) {
            _exit(96);
        }
    };
    const int client = begin();
    EXPECT_TRUE(stored_has(258, "TTYPID=" + std::to_string(pid)));
    pid_t job = 0;
    std::ifstream(path("/job")) >> job;
    EXPECT_TRUE(process_runs(job));
    close(client);
    EXPECT_TRUE(is_over());
    EXPECT_TRUE(eventually([&] {
        return !process_runs(job);
    }));
    EXPECT_TRUE(stored_has(258, "TTYPID=-1"));
}

class KitFullDisk : public KitMachine
{
  protected:
    void SetUp() override
    {
        if (getuid() != 0 || !own_mounts()) {
            GTEST_SKIP() << "only root mounts a disk";
        }
        KitMachine::SetUp();
        std::filesystem::create_directories(path("/mng/tty"));
        ASSERT_EQ(mount("none", path("/mng/tty").c_str(), "tmpfs", 0,
                        "size=128k,mode=0700"),
                  0);
        mounted = true;
        // Its socket lies there.
        inetd.reset();
        inetd = std::make_unique<AnsweringInetd>();
        run("echo up; exec sleep 60");
    }

    void TearDown() override
    {
        if (mounted) {
            daemon.reset();
            EXPECT_EQ(umount2(path("/mng/tty").c_str(), MNT_DETACH), 0);
            KitMachine::TearDown();
        }
    }

    // Whatever is free; half a page stays in files that are there.
    void fill()
    {
        const int fd = open(path("/mng/tty/filling").c_str(),
                            O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const std::string page(4096, 'f');
        while (write(fd, page.data(), page.size()) > 0) {
        }
        EXPECT_EQ(errno, ENOSPC);
        close(fd);
    }

    void store(const std::string &text) const
    {
        std::ofstream(path("/mng/tty/.tty_info_258")) << text;
    }

    bool mounted = false;
};

// Somebody has to be able to come in and free it.
TEST_F(KitFullDisk, session_begins_all_the_same)
{
    start({&service});
    fill();
    const int client = client_of(service);
    EXPECT_EQ(read_until(client, "up\r\n"), "up\r\n");
    EXPECT_NE(running(), "");
    close(client);
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
}

TEST_F(KitFullDisk, line_does_not_say_that_it_is_somebody_elses)
{
    store("SPEED=9600\r\nLOGNAME=ghost\r\nSESSIONID=0123456789abcdef\r\n");
    start({&service});
    fill();
    const int client = client_of(service);
    EXPECT_EQ(read_until(client, "up\r\n"), "up\r\n");
    EXPECT_FALSE(stored_has(258, "LOGNAME=ghost"));
    EXPECT_FALSE(stored_has(258, "SESSIONID=0123456789abcdef"));
    close(client);
}

TEST_F(KitFullDisk, line_of_a_session_is_free_after_its_end)
{
    start({&service});
    const int client = client_of(service);
    EXPECT_EQ(read_until(client, "up\r\n"), "up\r\n");
    EXPECT_FALSE(stored_has(258, "TTYPID=-1"));
    fill();
    close(client);
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
    EXPECT_TRUE(eventually([&] {
        return stored_has(258, "TTYPID=-1") && stored_has(258, "SESSIONID=0");
    }));
}

TEST_F(KitFullDisk, session_begins_when_the_disk_cannot_be_written)
{
    start({&service});
    ASSERT_EQ(mount(nullptr, path("/mng/tty").c_str(), nullptr,
                    MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
              0);
    const int client = client_of(service);
    EXPECT_EQ(read_until(client, "up\r\n"), "up\r\n");
    close(client);
}
