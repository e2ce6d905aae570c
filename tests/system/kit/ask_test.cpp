// The operator's command at the control socket of a daemon.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/system/kit/kit_daemon.h"
#include "tests/system/support/program.h"

class KitAsk : public KitTest
{
  protected:
    void SetUp() override
    {
        KitTest::SetUp();
        unix_path = console();
        service = service_on(unix_path);
        service.name = "shell";
        service.program = program;
    }

    std::string ttyctl(std::vector<std::string> words)
    {
        return output_of(TTYCTL_PATH, words, "", &code);
    }

    const char *program[4] = {"/bin/sh", "-c", "echo welcome; exec sleep 60",
                              nullptr};
    std::string unix_path;
    kit_service service = {};
    int code = -1;
};

TEST_F(KitAsk, prints_the_rows_alone)
{
    start({&service});
    EXPECT_EQ(ttyctl({"ask", control_path, "services"}),
              "service=shell protocol=7 family=unix path=" + console() +
                  " state=open sessions=0\n");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(ttyctl({"ask", control_path, "sessions"}), "");
    EXPECT_EQ(code, 0);
}

TEST_F(KitAsk, json_is_passed_on)
{
    start({&service});
    EXPECT_EQ(ttyctl({"ask", "--json", control_path, "sessions"}),
              "{\"sessions\":[]}\n");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(ttyctl({"ask", "--json", control_path, "kick", "300"}),
              "{\"error\":\"there is no session on line 300\"}\n");
    EXPECT_EQ(code, 1);
    EXPECT_EQ(ttyctl({"ask", control_path, "sessions", "--json"}),
              "{\"sessions\":[]}\n");
    EXPECT_EQ(code, 0);
}

TEST_F(KitAsk, words_are_one_command)
{
    start({&service});
    const int client = client_of(service);
    read_until(client, "welcome\r\n");
    // What would do something to his terminal is cut off.
    EXPECT_EQ(ttyctl({"ask", control_path, "kick", "258", "go", "home\x1b[2J"}),
              "");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(all_of(client), "\r\nttyline: go home\r\n");
    close(client);
}

TEST_F(KitAsk, error_of_the_daemon_is_told_and_decides)
{
    start({&service});
    EXPECT_EQ(ttyctl({"ask", control_path, "frob"}),
              "ttyctl: unknown command, try help\n");
    EXPECT_EQ(code, 1);
}

TEST_F(KitAsk, line_end_in_a_word_is_no_second_command)
{
    start({&service});
    ttyctl({"ask", control_path, "kick", "300\nstop 7"});
    EXPECT_EQ(code, 2);
    EXPECT_NE(ask("services").find("state=open"), std::string::npos);
}

TEST_F(KitAsk, daemon_that_is_not_there_is_told)
{
    EXPECT_EQ(ttyctl({"ask", path("/nobody"), "status"}),
              "ttyctl: " + path("/nobody") + ": No such file or directory\n");
    EXPECT_EQ(code, 4);
    EXPECT_EQ(ttyctl({"ask", std::string(200, 'x'), "status"}),
              "ttyctl: " + std::string(200, 'x') + ": File name too long\n");
    EXPECT_EQ(code, 4);
}

TEST_F(KitAsk, daemon_that_does_not_answer_is_given_up)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s",
             path("/mute").c_str());
    const int mute = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(
        bind(mute, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(mute, 1), 0);
    EXPECT_EQ(ttyctl({"--timeout", "1", "ask", path("/mute"), "status"}),
              "ttyctl: " + path("/mute") + ": no answer\n");
    EXPECT_EQ(code, 4);
    close(mute);
}
