// The control socket: one grammar for whoever asks, people and programs.
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "tests/system/kit/kit_daemon.h"

class KitControl : public KitTest
{
  protected:
    void SetUp() override
    {
        KitTest::SetUp();
        unix_path = console();
        service = service_on(unix_path);
        service.name = "shell";
        service.program = program;
        record.version = "1.2.3";
    }

    const char *program[4] = {"/bin/sh", "-c", "echo welcome; exec sleep 60",
                              nullptr};
    std::string unix_path;
    kit_service service = {};
};

TEST_F(KitControl, status_names_the_daemon)
{
    start({&service});
    const std::string answer = ask("status");
    EXPECT_EQ(word_of(answer, "daemon"), "kitd");
    EXPECT_EQ(word_of(answer, "version"), "1.2.3");
    EXPECT_EQ(word_of(answer, "pid"), std::to_string(daemon->pid()));
    EXPECT_EQ(word_of(answer, "services"), "1");
    EXPECT_EQ(word_of(answer, "sessions"), "0");
    EXPECT_EQ(word_of(answer, "allocation"), "connected");
    EXPECT_EQ(answer.substr(answer.find('\n') + 1), "ok\n");
}

TEST_F(KitControl, status_tells_when_the_daemon_began)
{
    const time_t before = time(nullptr);
    start({&service});
    const time_t began = time(nullptr);
    sleep(2);
    const long told = std::stol("0" + word_of(ask("status"), "begin"));
    EXPECT_GE(told, before);
    EXPECT_LE(told, began);
}

TEST_F(KitControl, sessions_are_rows_of_words)
{
    start({&service});
    EXPECT_EQ(ask("sessions"), "ok\n");
    const int client = client_of(service);
    const std::string answer = running();
    EXPECT_EQ(word_of(answer, "line"), "258");
    EXPECT_EQ(word_of(answer, "service"), "shell");
    EXPECT_EQ(word_of(answer, "peer"), "uid%20" + std::to_string(getuid()));
    EXPECT_EQ(word_of(answer, "device").find("/dev/pts/"), 0u) << answer;
    close(client);
}

TEST_F(KitControl, json_is_one_object_on_one_line)
{
    start({&service});
    EXPECT_EQ(ask("sessions --json"), "{\"sessions\":[]}\n");
    const int client = client_of(service);
    read_until(client, "welcome\r\n");
    const std::string answer = ask("sessions --json");
    EXPECT_EQ(answer.find("{\"sessions\":[{\"line\":258,\"id\":\""), 0u)
        << answer;
    EXPECT_NE(answer.find("\"peer\":\"uid " + std::to_string(getuid()) + "\""),
              std::string::npos)
        << answer;
    EXPECT_EQ(answer.substr(answer.size() - 4), "}]}\n");
    EXPECT_EQ(ask("kick 1 --json"),
              "{\"error\":\"there is no session on line 1\"}\n");
    EXPECT_EQ(ask("kick 258 --json"), "{\"ok\":true}\n");
    close(client);
}

TEST_F(KitControl, services_tell_where_they_are)
{
    start({&service});
    EXPECT_EQ(ask("services"), "service=shell protocol=7 family=unix path=" +
                                   console() + " state=open sessions=0\nok\n");
}

TEST_F(KitControl, kicked_user_is_told_why)
{
    start({&service});
    const int client = client_of(service);
    read_until(client, "welcome\r\n");
    EXPECT_EQ(ask("kick 258 the line is needed"), "ok\n");
    EXPECT_EQ(all_of(client), "\r\nttyline: the line is needed\r\n");
    EXPECT_TRUE(eventually([&] {
        return inetd->cleans() == 1;
    }));
    close(client);
}

TEST_F(KitControl, kick_without_a_session_is_an_error)
{
    start({&service});
    EXPECT_EQ(ask("kick 300"), "error: there is no session on line 300\n");
    EXPECT_EQ(ask("kick 99999"), "error: a line is 0 to 1585\n");
    EXPECT_EQ(ask("kick"), "error: usage: kick LINE [REASON...]\n");
}

TEST_F(KitControl, reload_without_anything_to_reload_is_an_error)
{
    start({&service});
    EXPECT_EQ(ask("reload"), "error: there is nothing to reload\n");
}

TEST_F(KitControl, reload_that_fails_says_why)
{
    record.reload = [](char *reason, size_t size, void *) {
        snprintf(reason, size, "line 7 of the file makes no sense");
        return 1;
    };
    start({&service});
    EXPECT_EQ(ask("reload"), "error: line 7 of the file makes no sense\n");
}

TEST_F(KitControl, service_can_be_offered_while_the_daemon_runs)
{
    static kit_service late;
    static std::string late_path;
    late_path = path("/late");
    late = service;
    late.path = late_path.c_str();
    record.reload = [](char *reason, size_t size, void *) {
        snprintf(reason, size, "%s", kit_error());
        return kit_offer(&late);
    };
    start({&service});
    EXPECT_EQ(ask("reload"), "ok\n");
    int client = -1;
    EXPECT_TRUE(eventually([&] {
        return (client = connect_path(late_path)) >= 0;
    }));
    EXPECT_EQ(read_until(client, "welcome\r\n"), "welcome\r\n");
    close(client);
}

TEST_F(KitControl, many_clients_are_served_at_a_time)
{
    start({&service});
    std::vector<int> silent;
    for (int i = 0; i < 15; i++) {
        silent.push_back(connect_path(control_path));
    }
    EXPECT_NE(ask("status").find("ok\n"), std::string::npos);
    for (const int fd : silent) {
        close(fd);
    }
}
