// Keepers that give up what moving bytes does not need, and what the daemon
// does in their place.
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/system/kit/kit_daemon.h"

constexpr uid_t STRANGER = 65534;

class KitConfine : public KitTest
{
  protected:
    void SetUp() override
    {
        KitTest::SetUp();
        unix_path = console();
        service = service_on(unix_path);
        service.program = program;
        service.confine = [](const kit_session *, void *) {
            return geteuid() != 0 ||
                           (setgid(STRANGER) == 0 && setuid(STRANGER) == 0)
                       ? 0
                       : -1;
        };
        old = "OLD=" + root_;
        service.environment = environment;
        service.hangup_ms = 300;
    }

    int begin(const char *command)
    {
        program[2] = command;
        environment[0] = old.c_str();
        start({&service});
        return client_of(service);
    }

    pid_t keeper() const
    {
        return std::stoi(word_of(running(), "keeper"));
    }

    static std::string status_of(pid_t pid, const std::string &name)
    {
        std::ifstream file("/proc/" + std::to_string(pid) + "/status");
        std::string line;
        while (std::getline(file, line)) {
            if (line.compare(0, name.size() + 1, name + ":") == 0) {
                return line.substr(name.size() + 1);
            }
        }
        return "";
    }

    const char *program[4] = {"/bin/sh", "-c", nullptr, nullptr};
    const char *environment[2] = {nullptr, nullptr};
    std::string old;
    std::string unix_path;
    kit_service service = {};
};

TEST_F(KitConfine, keeper_is_confined_and_its_program_is_not)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root becomes somebody else";
    }
    const int client = begin("id -u; read line");
    EXPECT_EQ(read_until(client, "\r\n"), "0\r\n");
    EXPECT_EQ(status_of(keeper(), "Uid"), "\t65534\t65534\t65534\t65534");
    EXPECT_TRUE(stored_has(258, "PROTOCOL=7"));
    close(client);
}

static bool g_confined;

static int note_and_pass(void *, kit_flow *flow)
{
    *flow->out++ = g_confined ? 'y' : 'n';
    flow->out_room--;
    flow->in++;
    flow->in_left--;
    return 0;
}

static int pass(void *, kit_flow *flow)
{
    *flow->out++ = *flow->in++;
    flow->out_room--;
    flow->in_left--;
    return 0;
}

TEST_F(KitConfine, keeper_is_confined_before_it_reads_a_byte)
{
    kit_codec codec = {};
    codec.size = sizeof codec;
    codec.decode = note_and_pass;
    codec.encode = pass;
    service.codec = &codec;
    service.confine = [](const kit_session *, void *) {
        usleep(50000);
        g_confined = true;
        return 0;
    };
    const int client = begin("stty raw -echo; echo up; head -c 1");
    ASSERT_TRUE(write_all(client, "x"));
    EXPECT_EQ(all_of(client).back(), 'y');
    close(client);
}

TEST_F(KitConfine, keeper_has_nothing_open_that_it_does_not_need)
{
    const int client = begin("echo up; read line");
    read_until(client, "up\r\n");
    const std::string pid = std::to_string(keeper());
    std::vector<std::string> names;
    for (const auto &one :
         std::filesystem::directory_iterator("/proc/" + pid + "/fd")) {
        std::string name = std::filesystem::read_symlink(one.path()).string();
        // Sockets are told apart by their numbers only.
        names.push_back(name.substr(0, name.find('[')));
    }
    std::sort(names.begin(), names.end());
    // Connection and bell; its signals.
    EXPECT_EQ(names, (std::vector<std::string>{
                         "/dev/null", "/dev/null", "/dev/null", "/dev/ptmx",
                         "anon_inode:", "socket:", "socket:"}));
    close(client);
}

TEST_F(KitConfine, keeper_that_cannot_be_confined_serves_nobody)
{
    service.confine = [](const kit_session *, void *) {
        return -1;
    };
    const int client = begin("echo up >\"$OLD/up\"");
    EXPECT_EQ(all_of(client),
              "\r\nttyline: no session: it cannot be kept safely\r\n");
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
    EXPECT_NE(access(path("/up").c_str(), F_OK), 0);
    close(client);
}

TEST_F(KitConfine, daemon_cleans_the_line_of_a_confined_keeper)
{
    const int client = begin("echo up; read line");
    read_until(client, "up\r\n");
    running();
    EXPECT_FALSE(stored_has(258, "SESSIONID=0"));
    ASSERT_TRUE(write_all(client, "\n"));
    all_of(client);
    EXPECT_TRUE(eventually([&] {
        return stored_has(258, "SESSIONID=0") && stored_has(258, "TTYPID=-1");
    }));
    close(client);
}

// Once hung up it has five seconds.
TEST_F(KitConfine, daemon_ends_what_a_confined_keeper_has_left)
{
    const int client = begin("trap '' HUP; sleep 1000 & echo $! >\"$OLD/job\"; "
                             "echo up; exec sleep 1000");
    read_until(client, "up\r\n");
    running();
    pid_t job = 0;
    std::ifstream(path("/job")) >> job;
    ASSERT_TRUE(process_runs(job));
    close(client);
    EXPECT_TRUE(eventually([&] {
        return !process_runs(job);
    }));
    EXPECT_TRUE(stored_has(258, "SESSIONID=0"));
}
