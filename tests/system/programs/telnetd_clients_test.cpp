// Real clients: what people have. One that is not installed fails its tests.
#include "tests/system/programs/telnetd_run.h"

struct RealClient {
    const char *name;
    std::vector<std::string> words; // before address and port
    bool port_first;                // "-P PORT ADDRESS"
    const char *tells;              // TERM where its own is linux
};

static const RealClient CLIENTS[] = {
    {"inetutils", {"inetutils-telnet"}, false, "linux"},
    {"busybox", {"busybox", "telnet"}, false, "linux"},
    {"plink", {"plink", "-telnet"}, true, "xterm"}};

static void PrintTo(const RealClient &client, std::ostream *to)
{
    *to << client.name;
}

static std::string name_of(const testing::TestParamInfo<RealClient> &info)
{
    return info.param.name;
}

class TelnetdClient : public Telnetd,
                      public testing::WithParamInterface<RealClient>
{
  protected:
    std::unique_ptr<Client> log_in(const char *address = "127.0.0.1") const
    {
        std::vector<std::string> words = GetParam().words;
        const std::string number = port_word();
        if (GetParam().port_first) {
            words.insert(words.end(), {"-P", number, address});
        } else {
            words.insert(words.end(), {address, number});
        }
        return std::make_unique<Client>(words, 111, 37, "linux");
    }
};

INSTANTIATE_TEST_SUITE_P(Real, TelnetdClient, testing::ValuesIn(CLIENTS),
                         name_of);

static const char SHOW[] = "echo \"<$(stty size)>\"; echo \"<$TERM>\"; read x; "
                           "echo \"got $x\"";

TEST_P(TelnetdClient, tells_size_and_type_before_the_program_starts)
{
    start(SHOW);
    const auto client = log_in();
    EXPECT_NE(client->shown_until(">").find("<37 111>"), std::string::npos);
    const std::string type = client->shown_until(">");
    EXPECT_NE(type.find(std::string("<") + GetParam().tells + ">"),
              std::string::npos)
        << type;
    EXPECT_TRUE(stored_has("COLUMNS=111"));
    EXPECT_TRUE(stored_has("LINES=37"));
    EXPECT_TRUE(stored_has(std::string("TERM=") + GetParam().tells));
    EXPECT_TRUE(stored_has("PROTOCOL=4"));
}

TEST_P(TelnetdClient, types_a_line_and_is_disconnected_at_the_end)
{
    start(SHOW);
    const auto client = log_in("::1");
    client->shown_until(">");
    ASSERT_TRUE(client->type("hello\r"));
    EXPECT_NE(client->shown_until("got hello\r\n").find("got hello\r\n"),
              std::string::npos);
    EXPECT_TRUE(client->ends());
}

// The terminal's own echo, once: the client leaves it to the other side.
TEST_P(TelnetdClient, sees_what_is_typed_once)
{
    start("echo ready; read x; echo \"end of $x\"");
    const auto client = log_in();
    client->shown_until("ready\r\n");
    ASSERT_TRUE(client->type("secret\r"));
    EXPECT_EQ(client->shown_until("end of"), "secret\r\nend of");
}

// Whoever is interrupted behind the word, the shell is not.
static const char SLEEP[] =
    "trap : INT; (echo ready; exec sleep 1000); echo over";

TEST_P(TelnetdClient, interrupts_a_program)
{
    start(SLEEP);
    const auto client = log_in();
    client->shown_until("ready\r\n");
    ASSERT_TRUE(client->type("\003"));
    EXPECT_EQ(client->shown_until("over\r\n"), "^Cover\r\n");
}

// BusyBox' client tells its size once.
TEST_P(TelnetdClient, tells_a_later_size)
{
    start("trap 'echo \"<$(stty size)>\"' WINCH; echo ready; "
          "while read x; do :; done");
    const auto client = log_in();
    client->shown_until("ready\r\n");
    client->resize(99, 44);
    if (GetParam().name == std::string("busybox")) {
        ASSERT_TRUE(client->type("x\r"));
        EXPECT_EQ(client->shown_until("x\r\n"), "x\r\n");
        return;
    }
    EXPECT_NE(client->shown_until(">").find("<44 99>"), std::string::npos);
}

// By its escape character it has commands of its own.
class TelnetdCommand : public Telnetd
{
  protected:
    // When the program is ready.
    void command(const std::string &words)
    {
        client = std::make_unique<Client>(
            std::vector<std::string>{"inetutils-telnet", "127.0.0.1",
                                     port_word()},
            80, 24, "vt100");
        client->shown_until("ready\r\n");
        ASSERT_TRUE(client->type("\035"));
        client->shown_until("telnet> ");
        ASSERT_TRUE(client->type(words + "\r"));
    }

    // Whether the client shows it in the end.
    bool shows(const std::string &text) const
    {
        return client->shown_until(text).find(text) != std::string::npos;
    }

    std::unique_ptr<Client> client;
};

TEST_F(TelnetdCommand, send_ip_interrupts_sleep)
{
    start(SLEEP);
    command("send ip");
    EXPECT_TRUE(shows("over\r\n"));
}

TEST_F(TelnetdCommand, send_ayt_is_answered)
{
    start("echo ready; read x");
    command("send ayt");
    EXPECT_TRUE(shows("[yes]"));
}

TEST_F(TelnetdCommand, send_synch_loses_nothing_that_comes_behind_it)
{
    start("echo ready; read x; echo \"got $x\"");
    command("send synch");
    ASSERT_TRUE(client->type("behind\r"));
    EXPECT_TRUE(shows("got behind"));
}
