// Answers to commands, in a process that has registered no service: what is
// not refused reaches the session service, which has nothing to do.
#include "programs/consoled/control.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include <ttyline/vc.h>

namespace
{

const std::vector<int> offered = {6, 10};

std::string answer(const std::string &line)
{
    return control_answer(line, offered);
}

TEST(ControlAnswer, is_ok_for_every_offered_protocol)
{
    EXPECT_EQ("ok\n", answer("open 6"));
    EXPECT_EQ("ok\n", answer("stop 10"));
}

TEST(ControlAnswer, refuses_protocols_that_are_not_offered)
{
    for (const char *line : {"open 7", "stop 1", "port 0 1 2", "tos 11 2 0"}) {
        EXPECT_EQ("error: no service of this protocol\n", answer(line));
    }
}

TEST(ControlAnswer, tells_of_a_failed_port_change)
{
    /* The session service logs it: not in the machine's own directory. */
    char directory[] = "/tmp/ttyline-control-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory));
    setenv("TMPDIR", directory, 1);
    vc_debug_init();
    EXPECT_EQ("error: the line-allocation daemon could not be told\n",
              answer("port 6 23 24"));
    std::filesystem::remove_all(directory);
}

TEST(ControlAnswer, tells_of_a_missing_listener)
{
    EXPECT_EQ("error: no service of this protocol and family\n",
              answer("tos 6 2 8"));
}

TEST(ControlAnswer, lists_the_offered_protocols_in_its_help)
{
    const std::string text = answer("help");
    const std::string end = "protocols: 6 10\nok\n";
    ASSERT_GT(text.size(), end.size());
    EXPECT_EQ(end, text.substr(text.size() - end.size()));
}

TEST(ControlStart, says_why_the_path_cannot_be_used)
{
    std::string error;
    EXPECT_FALSE(control_start("", offered, error));
    EXPECT_NE(std::string::npos, error.find("empty or too long")) << error;
    EXPECT_FALSE(control_start(std::string(200, 'x'), offered, error));
    EXPECT_NE(std::string::npos, error.find("empty or too long")) << error;
    EXPECT_FALSE(control_start("/nonexistent/control", offered, error));
    EXPECT_NE(std::string::npos, error.find("No such file")) << error;
    EXPECT_FALSE(control_start("/dev/null", offered, error));
    EXPECT_NE(std::string::npos, error.find("is no socket")) << error;
}

} // namespace
