#include "programs/login/prompt.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

constexpr int DEADLINE_MS = 20000;

// The questions are asked on the standard streams: a terminal is put there.
class LoginPrompt : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        int slave = -1;
        ASSERT_EQ(openpty(&user, &slave, nullptr, nullptr, nullptr), 0);
        for (int fd = 0; fd <= 1; fd++) {
            before[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 10);
            ASSERT_GE(dup2(slave, fd), 0);
        }
        close(slave);
    }

    void TearDown() override
    {
        fflush(stdout);
        for (int fd = 0; fd <= 1; fd++) {
            dup2(before[fd], fd);
            close(before[fd]);
        }
        close(user);
    }

    void type(const std::string &text) const
    {
        ASSERT_EQ(write(user, text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }
    // What its user sees until the text ends so: it takes the system a moment.
    std::string shown(const std::string &wanted) const
    {
        std::string seen;
        char byte = 0;
        while (seen.size() < wanted.size() ||
               seen.compare(seen.size() - wanted.size(), wanted.size(),
                            wanted) != 0) {
            pollfd watched = {user, POLLIN, 0};
            if (poll(&watched, 1, DEADLINE_MS) != 1 ||
                read(user, &byte, 1) != 1) {
                return seen + " and no more";
            }
            seen += byte;
        }
        return seen;
    }
    static bool echoes()
    {
        termios modes = {};
        return tcgetattr(0, &modes) == 0 && (modes.c_lflag & ECHO) != 0;
    }

    int user = -1;
    int before[2] = {-1, -1};
    char answer[16] = "untouched";
};

TEST_F(LoginPrompt, answer_is_the_line_without_its_end)
{
    type("alice\n");
    EXPECT_EQ(shown("alice\r\n"), "alice\r\n");
    EXPECT_EQ(prompt_ask("login: ", true, answer, sizeof answer),
              prompt_result::ANSWERED);
    EXPECT_STREQ(answer, "alice");
    EXPECT_EQ(shown("login: "), "login: ");
}

TEST_F(LoginPrompt, next_line_stays_for_the_next_question)
{
    type("one\ntwo\n");
    prompt_ask("", true, answer, sizeof answer);
    prompt_ask("", true, answer, sizeof answer);
    EXPECT_STREQ(answer, "two");
}

TEST_F(LoginPrompt, longest_answer_has_room_for_its_end)
{
    type("123456789012345\n");
    EXPECT_EQ(prompt_ask("", true, answer, sizeof answer),
              prompt_result::ANSWERED);
    EXPECT_STREQ(answer, "123456789012345");
}

TEST_F(LoginPrompt, answer_that_is_too_long_leaves_nothing_of_itself)
{
    type("1234567890123456\nnext\n");
    EXPECT_EQ(prompt_ask("", true, answer, sizeof answer),
              prompt_result::TOO_LONG);
    EXPECT_EQ(std::string(answer, sizeof answer),
              std::string(sizeof answer, '\0'));
    prompt_ask("", true, answer, sizeof answer);
    EXPECT_STREQ(answer, "next");
}

TEST_F(LoginPrompt, zero_byte_is_in_no_answer)
{
    type(std::string("al\0ice\n", 7));
    EXPECT_EQ(prompt_ask("", true, answer, sizeof answer),
              prompt_result::TOO_LONG);
}

TEST_F(LoginPrompt, end_of_input_is_no_answer)
{
    type("\004");
    EXPECT_EQ(prompt_ask("", true, answer, sizeof answer),
              prompt_result::ENDED);
}

TEST_F(LoginPrompt, hung_up_terminal_gives_no_answer)
{
    close(user);
    user = -1;
    EXPECT_EQ(prompt_ask("login: ", true, answer, sizeof answer),
              prompt_result::ENDED);
    EXPECT_EQ(prompt_ask("Password: ", false, answer, sizeof answer),
              prompt_result::ENDED);
}

// The typing waits for the question: what came before it is thrown away.
TEST_F(LoginPrompt, hidden_answer_is_not_shown_and_the_echo_comes_back)
{
    const pid_t typist = fork();
    if (typist == 0) {
        shown("Password: ");
        _exit(echoes() || write(user, "secret\n", 7) != 7 ? 1 : 0);
    }
    EXPECT_EQ(prompt_ask("Password: ", false, answer, sizeof answer),
              prompt_result::ANSWERED);
    EXPECT_STREQ(answer, "secret");
    EXPECT_EQ(shown("\r\n"), "\r\n");
    EXPECT_TRUE(echoes());
    int status = -1;
    EXPECT_EQ(waitpid(typist, &status, 0), typist);
    EXPECT_EQ(status, 0);
}

TEST_F(LoginPrompt, time_for_all_answers_together_ends_the_wait)
{
    EXPECT_FALSE(prompt_time_over());
    prompt_limit(1);
    type("in time\n");
    EXPECT_EQ(prompt_ask("", true, answer, sizeof answer),
              prompt_result::ANSWERED);
    EXPECT_EQ(prompt_ask("", true, answer, sizeof answer),
              prompt_result::ENDED);
    EXPECT_TRUE(prompt_time_over());
    prompt_limit(0);
    EXPECT_FALSE(prompt_time_over());
}

TEST_F(LoginPrompt, text_stands_on_a_line_of_its_own)
{
    prompt_say("no");
    EXPECT_EQ(shown("\r\n"), "no\r\n");
}
