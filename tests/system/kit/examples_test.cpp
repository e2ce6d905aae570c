// The examples as their readers would try them, with the real line-allocation
// daemon.
#include <grp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>

#include <ttyline/tty.h>

#include "tests/support/wait.h"
#include "tests/system/support/daemon.h"
#include "tests/system/support/program.h"

class Examples : public SystemTest
{
  protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        trace = path("/trace");
        ttylined = std::make_unique<Program>(
            TTYLINED_PATH, std::vector<std::string>{"--trace=" + trace}, [] {});
        // A path is there before anybody listens on it.
        ASSERT_TRUE(traced("listening on " + path("/mng/tty/.tty_rl")));
    }

    void TearDown() override
    {
        daemon.reset();
        ttylined.reset();
        SystemTest::TearDown();
    }

    void start(const char *program, std::vector<std::string> arguments)
    {
        daemon = std::make_unique<Program>(program, arguments, [] {});
    }

    int client() const
    {
        int fd = -1;
        EXPECT_TRUE(eventually([&] {
            return (fd = connect_path(path("/s"))) >= 0;
        }));
        return fd;
    }

    bool traced(const std::string &text) const
    {
        return eventually([&] {
            std::ifstream file(trace);
            std::stringstream content;
            content << file.rdbuf();
            return content.str().find(text) != std::string::npos;
        });
    }

    // Enters the chat under a name.
    static void enter(int fd, const std::string &name)
    {
        read_until(fd, "your name: ");
        ASSERT_TRUE(write_all(fd, name + "\n"));
        EXPECT_NE(read_until(fd, ": hello\r\n"), "");
    }

    std::string trace;
    std::unique_ptr<Program> ttylined;
    std::unique_ptr<Program> daemon;
};

TEST_F(Examples, echo_answers_what_is_typed)
{
    start(ECHO_PATH, {path("/s")});
    const int fd = client();
    read_until(fd, "type something:\r\n");
    ASSERT_TRUE(write_all(fd, "hello\n"));
    EXPECT_EQ(read_until(fd, "> hello\r\n"), "hello\r\n> hello\r\n");
    close(fd);
}

TEST_F(Examples, chat_is_heard_on_all_lines)
{
    start(CHAT_PATH, {path("/s")});
    const int ann = client();
    enter(ann, "ann");
    const int bob = client();
    enter(bob, "bob");
    const std::string uid = " (uid " + std::to_string(getuid()) + ")";
    const std::string seen = read_until(ann, "bob" + uid + ": hello\r\n");
    EXPECT_EQ(seen, "[259] bob" + uid + ": hello\r\n");
    ASSERT_TRUE(write_all(bob, "good morning\n"));
    EXPECT_EQ(read_until(ann, "good morning\r\n"),
              "[259] bob" + uid + ": good morning\r\n");
    char name[32];
    EXPECT_STREQ(tty_getenv(259, "LOGNAME", name, sizeof name), "bob");
    close(bob);
    EXPECT_EQ(read_until(ann, "has left\r\n"),
              "[259] bob" + uid + " has left\r\n");
    close(ann);
}

TEST_F(Examples, chat_refuses_users_that_are_not_named)
{
    start(CHAT_PATH, {path("/s"), std::to_string(getuid() + 1)});
    const int fd = client();
    EXPECT_EQ(read_until(fd, "\n"),
              "ttyline: you may not use this service\r\n");
    close(fd);
}

TEST_F(Examples, keys_are_stored_and_shown)
{
    int code = -1;
    EXPECT_EQ(output_of(KEYS_PATH, {"300", "PEERNAME", "far away"}, "", &code),
              "");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(output_of(KEYS_PATH, {"300", "PEERNAME"}, "", &code),
              "PEERNAME=far away\n");
    EXPECT_EQ(output_of(KEYS_PATH, {"300"}, "", &code), "PEERNAME=far away\n");
    EXPECT_EQ(output_of(KEYS_PATH, {"300", "NOSUCHKEY"}, "", &code), "");
    EXPECT_EQ(code, 1);
    output_of(KEYS_PATH, {"300", "NOSUCHKEY", "x"}, "", &code);
    EXPECT_EQ(code, 1);
}

TEST_F(Examples, keys_does_not_enter_a_directory_of_others)
{
    ASSERT_EQ(chmod(path("/mng/tty").c_str(), 0777), 0);
    int code = -1;
    const std::string text = output_of(KEYS_PATH, {"300"}, "", &code);
    EXPECT_EQ(code, 1);
    EXPECT_NE(text.find("can be written by others"), std::string::npos) << text;
}

TEST_F(Examples, maintenance_holds_the_lines_while_its_command_runs)
{
    int code = -1;
    EXPECT_EQ(output_of(MAINTENANCE_PATH,
                        {"60", "/bin/sh", "-c", "echo working; exit 5"}, "",
                        &code),
              "working\n");
    EXPECT_EQ(code, 5);
    EXPECT_TRUE(traced("hold"));
    EXPECT_TRUE(traced("release"));
}

TEST_F(Examples, maintenance_does_nothing_without_the_daemon)
{
    ttylined.reset();
    unlink(path("/mng/tty/.tty_rl").c_str());
    int code = -1;
    EXPECT_EQ(
        output_of(MAINTENANCE_PATH, {"60", "/bin/echo", "working"}, "", &code),
        "maintenance: the daemon cannot be asked\n");
    EXPECT_EQ(code, 1);
}
