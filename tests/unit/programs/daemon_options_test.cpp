#include "programs/shared/daemon_options.h"

#include <cstring>

#include <gtest/gtest.h>

static const char HELP[] = "what there is\n";

class DaemonOptions : public testing::Test
{
  protected:
    // A daemon with an option of its own, "--own".
    void parse(std::vector<std::string> words)
    {
        std::vector<char *> arguments;
        words.insert(words.begin(), "daemon");
        for (std::string &word : words) {
            arguments.push_back(word.data());
        }
        kept = std::move(words);
        arguments.push_back(nullptr);
        optind = 0;
        parse_daemon_options(static_cast<int>(arguments.size() - 1),
                             arguments.data(),
                             {"daemon",
                              HELP,
                              {{"own", required_argument, nullptr, 'O'}},
                              [this](int letter) {
                                  EXPECT_EQ(letter, 'O');
                                  own = optarg;
                                  return own != "last";
                              }},
                             chosen);
    }

    std::vector<std::string> kept;
    std::string own;
    daemon_options chosen;
};

TEST_F(DaemonOptions, have_values_when_nothing_is_said)
{
    parse({});
    EXPECT_EQ(chosen.port, 0);
    EXPECT_EQ(chosen.families, KIT_IPV4 | KIT_IPV6);
    EXPECT_STREQ(chosen.term, "vt100");
    EXPECT_EQ(chosen.most_per_peer, 16u);
    EXPECT_EQ(chosen.most_sessions, 0u);
    EXPECT_EQ(chosen.idle_seconds, 0u);
    EXPECT_FALSE(chosen.no_authentication);
}

TEST_F(DaemonOptions, are_those_that_all_daemons_have)
{
    parse({"--port",
           "2323",
           "--control",
           "/c",
           "--no-authentication",
           "--allow",
           "10.0.0.0/8",
           "--allow",
           "any",
           "--sessions",
           "5",
           "--sessions-per-peer",
           "2",
           "--idle",
           "60",
           "--no-ipv4",
           "--setenv",
           "A=b",
           "--term",
           "xterm"});
    EXPECT_EQ(chosen.port, 2323);
    EXPECT_STREQ(chosen.control, "/c");
    EXPECT_TRUE(chosen.no_authentication);
    ASSERT_EQ(chosen.peers.size(), 1u);
    EXPECT_STREQ(chosen.peers[0], "10.0.0.0/8");
    EXPECT_TRUE(chosen.any_peer);
    EXPECT_EQ(chosen.most_sessions, 5u);
    EXPECT_EQ(chosen.most_per_peer, 2u);
    EXPECT_EQ(chosen.idle_seconds, 60u);
    EXPECT_EQ(chosen.families, KIT_IPV6);
    ASSERT_EQ(chosen.environment.size(), 1u);
    EXPECT_STREQ(chosen.term, "xterm");
}

TEST_F(DaemonOptions, of_a_daemon_itself_go_to_it)
{
    parse({"--own", "word", "--no-ipv6"});
    EXPECT_EQ(own, "word");
    EXPECT_EQ(chosen.families, KIT_IPV4);
}

TEST_F(DaemonOptions, of_a_daemon_itself_may_be_the_last)
{
    parse({"--own", "last", "--port", "24"});
    EXPECT_EQ(chosen.port, 0);
    ASSERT_EQ(chosen.program.size(), 2u);
    EXPECT_STREQ(chosen.program[0], "--port");
}

TEST_F(DaemonOptions, behind_the_program_are_the_programs)
{
    parse({"--port", "23", "ls", "--port", "24"});
    EXPECT_EQ(chosen.port, 23);
    ASSERT_EQ(chosen.program.size(), 3u);
    EXPECT_STREQ(chosen.program[1], "--port");
}

TEST_F(DaemonOptions, that_mean_nothing_end_the_process)
{
    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{"--port", "0"},
                                               {"--port", "65536"},
                                               {"--port", "+1"},
                                               {"--port", "1x"},
                                               {"--idle", "86401"},
                                               {"--sessions", "1587"},
                                               {"--setenv", "A"},
                                               {"--setenv", "=b"}}) {
        EXPECT_EXIT(parse(words), testing::ExitedWithCode(2), "try --help");
    }
    EXPECT_EXIT(parse({"--frob"}), testing::ExitedWithCode(2), "what there is");
}

TEST_F(DaemonOptions, need_somebody_who_may_come_in_on_a_port)
{
    parse({"--port", "23"});
    EXPECT_NE(objection_to_port(chosen).find("--port needs --allow"),
              std::string::npos);
    chosen.any_peer = true;
    EXPECT_EQ(objection_to_port(chosen), "");
    chosen.families = 0;
    EXPECT_NE(objection_to_port(chosen).find("leave --port nothing"),
              std::string::npos);
}
