// What the login daemon starts with: whom it lets in, as whom, for how long,
// and what it leaves when it ends.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/system/programs/consoled_run.h"

// What it says to a command line that it does not take.
static std::string refusal_of(const std::vector<std::string> &arguments)
{
    int code = -1;
    const std::string text = output_of(CONSOLED_PATH, arguments, "", &code);

    EXPECT_EQ(code, 2) << text;
    return text;
}

TEST_F(Consoled, refuses_a_second_in_path_service)
{
    int code = -1;
    const std::string text =
        output_of(CONSOLED_PATH,
                  {"--inpath", path("/a"), "--inpath", path("/b")}, "", &code);
    EXPECT_EQ(code, 2);
    EXPECT_NE(text.find("only one --inpath"), std::string::npos) << text;
}

TEST_F(Consoled, wants_to_know_who_may_come_in_on_a_port)
{
    const std::string text =
        refusal_of({"--no-authentication", "--port", "2323"});
    EXPECT_NE(text.find("--port needs --allow"), std::string::npos) << text;
}

// Who is not root is refused what only root can have.
TEST_F(Consoled, as_root_offers_no_session_that_nobody_asked_for_a_password)
{
    const bool is_root = geteuid() == 0;
    const std::string text =
        is_root ? refusal_of({"--path", path("/console"), "/bin/cat"})
                : refusal_of({"--path", path("/console"), "--login"});
    const char *why = is_root ? "would be root" : "needs root";
    EXPECT_NE(text.find(why), std::string::npos) << text;
    EXPECT_FALSE(std::filesystem::exists(path("/console")));
}

TEST_F(Consoled, has_login_ask_who_it_is)
{
    if (geteuid() != 0) {
        const std::string text =
            refusal_of({"--path", path("/console"), "--login"});
        EXPECT_NE(text.find("needs root"), std::string::npos) << text;
        return;
    }
    start({"--path", path("/console"), "--login"});
    permit_next();
    int client = -1;
    ASSERT_GT(log_in_path(&client, "/console"), 0);
    const std::string asked = read_until(client, "login: ");
    EXPECT_NE(asked.find("login: "), std::string::npos) << asked;
    close(client);
    const auto clean = connection.receive();
    ASSERT_TRUE(clean);
    EXPECT_EQ(clean->vc_flag, 0x002u);
}

TEST_F(Consoled, ends_a_session_that_is_idle)
{
    start({"--path", path("/console"), "--idle", "1", "/bin/cat"});
    permit_next();
    int client = -1;
    ASSERT_GT(log_in_path(&client, "/console"), 0);
    const std::string said = read_until(client, "too long\r\n");
    EXPECT_NE(said.find("nothing has moved for too long"), std::string::npos);
    EXPECT_TRUE(ended(client));
    close(client);
}

TEST_F(Consoled, has_few_sessions_of_one_peer_unless_told_otherwise)
{
    start({"--path", path("/console"), "--sessions-per-peer", "1", "/bin/cat"});
    permit_next();
    int first = -1;
    ASSERT_GT(log_in_path(&first, "/console"), 0);
    const int second = connect_path(path("/console"));
    const auto report = connection.receive();
    ASSERT_TRUE(report);
    ASSERT_TRUE(connection.assign(*report, 301));
    const std::string said = read_until(second, "\n");
    EXPECT_NE(said.find("too many sessions"), std::string::npos) << said;
    EXPECT_TRUE(ended(second));
    close(second);
    close(first);
}

TEST_F(Consoled, ends_on_sigterm_and_removes_its_socket_files)
{
    start({"--path", path("/console"), "--inpath", path("/inpath"), "--control",
           control_path(), "/bin/cat"});
    permit_next();
    permit_next();
    for (const char *name : {"/console", "/inpath"}) {
        EXPECT_TRUE(eventually([&] {
            return path_listens(path(name));
        }));
        EXPECT_TRUE(std::filesystem::exists(path(name)));
    }
    kill(daemon->pid(), SIGTERM);
    const int status = daemon->wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    for (const char *name : {"/console", "/inpath", "/control"}) {
        EXPECT_FALSE(std::filesystem::exists(path(name))) << name;
    }
    daemon.reset();
}
