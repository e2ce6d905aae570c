// Who is on a line, for everybody who reads lines; and nobody else.
#include <fcntl.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

#include <ttyline/tty.h>

#include "tests/system/kit/kit_daemon.h"

class KitLine : public KitTest
{
  protected:
    void SetUp() override
    {
        KitTest::SetUp();
        unix_path = console();
        service = service_on(unix_path);
        service.program = program;
    }

    // A session on line 258 whose program runs.
    int begin()
    {
        start({&service});
        const int client = client_of(service);
        running();
        return client;
    }

    void end(int client)
    {
        close(client);
        EXPECT_TRUE(eventually([&] {
            return inetd->cleans() == 1;
        }));
    }

    const char *program[4] = {"/bin/sh", "-c", "exec sleep 60", nullptr};
    std::string unix_path;
    kit_service service = {};
};

TEST_F(KitLine, says_who_is_on_it)
{
    const int client = begin();
    const std::string row = ask("sessions");
    const std::string user = getpwuid(getuid())->pw_name;
    for (const std::string &entry :
         {"TTYDEV=" + word_of(row, "device"), "TTYPID=" + word_of(row, "pid"),
          "SESSIONID=" + word_of(row, "id"), "LOGNAME=" + user,
          "PEERNAME=uid " + std::to_string(getuid()), "SOCKADDR=" + console(),
          std::string("PROTOCOL=7"), std::string("CONN_TYPE=1"),
          std::string("TTYNUM=258"), std::string("LOGSUCC=0")}) {
        EXPECT_TRUE(stored_has(258, entry)) << entry;
    }
    EXPECT_EQ(std::stoll(word_of(row, "id").substr(0, 8), nullptr, 16),
              std::stoll(word_of(row, "begin")));
    end(client);
}

TEST_F(KitLine, keeps_nothing_of_the_session_before)
{
    ASSERT_EQ(tty_setenv(258, "PRILEVEL", "15"), 0);
    ASSERT_EQ(tty_setenv(258, "LOGNAME", "ghost"), 0);
    ASSERT_EQ(tty_setenv(258, "AUTOCMD", "reboot"), 0);
    ASSERT_EQ(tty_setenv(258, "ACCT_CMD5", "yes"), 0);
    ASSERT_EQ(tty_setenv(258, "EXEC_TIMEOUT", "1"), 0);
    const int client = begin();
    for (const std::string &entry : stored(258)) {
        const std::string key = entry.substr(0, entry.find('='));
        for (const char *gone :
             {"PRILEVEL", "AUTOCMD", "ACCT_CMD5", "EXEC_TIMEOUT"}) {
            EXPECT_NE(key, gone);
        }
        EXPECT_NE(entry, "LOGNAME=ghost");
    }
    end(client);
}

TEST_F(KitLine, keeps_the_settings_of_the_line)
{
    ASSERT_EQ(tty_setenv(258, "SPEED", "9600"), 0);
    ASSERT_EQ(tty_setenv(258, "BANR_LOGIN", "keep out"), 0);
    const int client = begin();
    EXPECT_TRUE(stored_has(258, "SPEED=9600"));
    EXPECT_TRUE(stored_has(258, "BANR_LOGIN=keep out"));
    end(client);
    EXPECT_TRUE(stored_has(258, "SPEED=9600"));
    EXPECT_TRUE(stored_has(258, "BANR_LOGIN=keep out"));
}

TEST_F(KitLine, is_clean_when_it_is_given_back)
{
    const int client = begin();
    ASSERT_EQ(tty_setenv(258, "PRILEVEL", "15"), 0);
    ASSERT_EQ(tty_setenv(258, "MONITOR", "1"), 0);
    end(client);
    EXPECT_EQ(stored(258),
              (std::vector<std::string>{"TTYPID=-1", "LOGSUCC=0", "MTYPE=0",
                                        "SESSIONID=0", "IDLE=0"}));
}

// The library stores the terminal before anybody can look at the line: that is
// waited for without a limit, and only a kill ends it.
TEST_F(KitLine, session_does_not_begin_while_another_program_locks_the_line)
{
    ASSERT_EQ(tty_setenv(258, "LOGNAME", "ghost"), 0);
    const int fd = open(path("/mng/tty/.tty_info_258.lock").c_str(),
                        O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(tty_flock_try(fd), 0);
    start({&service});
    const int client = client_of(service);
    // The daemon gives the keeper ten seconds to speak.
    EXPECT_EQ(all_of(client), "");
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
    EXPECT_NE(ask("status").find(" sessions=0 "), std::string::npos);
    close(fd);
    close(client);
}

TEST_F(KitLine, login_is_stored_and_told)
{
    service.program = nullptr;
    service.function = [](const kit_session *session, void *) {
        const int failed = kit_login(session, "mallory", 0);
        const int done = kit_login(session, "alice", 1);
        printf("%d %d\n", failed, done);
        fflush(stdout);
        sleep(60);
        return 0;
    };
    start({&service});
    const int client = client_of(service);
    EXPECT_EQ(read_until(client, "0 0\r\n"), "0 0\r\n");
    EXPECT_TRUE(stored_has(258, "LOGNAME=alice"));
    EXPECT_TRUE(stored_has(258, "LOGSUCC=1"));
    EXPECT_TRUE(eventually([&] {
        const std::string row = ask("sessions");
        return word_of(row, "user") == "alice" &&
               word_of(row, "login") == "yes";
    }));
    end(client);
}

static int listen_on_path(const std::string &name)
{
    sockaddr_un address = {};
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address),
              0);
    EXPECT_EQ(listen(fd, 1), 0);
    return fd;
}

// It would speak to the administration daemon in the login daemon's name.
TEST_F(KitLine, program_after_a_login_has_only_its_terminal)
{
    const int admin = listen_on_path(path("/mng/tty/.tty_rl"));
    ASSERT_GE(admin, 0);
    service.program = nullptr;
    service.function = [](const kit_session *session, void *) {
        kit_login(session, "alice", 1);
        execl("/bin/sh", "sh", "-c",
              "for fd in 3 4 5 6 7 8 9 10 11 12; do "
              "[ ! -e /proc/$$/fd/$fd ] || readlink /proc/$$/fd/$fd; done; "
              "echo that is all; read line",
              nullptr);
        return 1;
    };
    start({&service});
    const int client = client_of(service);
    const int told = accept(admin, nullptr, nullptr);
    EXPECT_GE(told, 0);
    EXPECT_EQ(read_until(client, "all\r\n"), "that is all\r\n");
    close(told);
    close(admin);
    end(client);
}

TEST_F(KitLine, name_with_a_line_feed_stays_one_line)
{
    service.program = nullptr;
    service.function = [](const kit_session *session, void *) {
        kit_login(session, "eve\nPRILEVEL=15", 1);
        printf("done\n");
        fflush(stdout);
        sleep(60);
        return 0;
    };
    start({&service});
    const int client = client_of(service);
    read_until(client, "done\r\n");
    for (const std::string &entry : stored(258)) {
        EXPECT_NE(entry, "PRILEVEL=15");
    }
    end(client);
}

// A link could make the daemon overwrite somebody else's file.
TEST_F(KitLine, file_that_is_a_link_is_not_followed)
{
    const std::string victim = path("/victim");
    std::ofstream(victim) << "precious\n";
    const int client = begin();
    ASSERT_EQ(unlink(path("/mng/tty/.tty_info_258").c_str()), 0);
    ASSERT_EQ(
        symlink(victim.c_str(), path("/mng/tty/.tty_info_258.tmp").c_str()), 0);
    end(client);
    std::ifstream file(victim);
    std::string content;
    std::getline(file, content);
    EXPECT_EQ(content, "precious");
}
