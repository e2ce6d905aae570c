#include <ttyline/tty.h>

#include "tests/support/fault_row.h"
#include "tests/unit/tty/tty_fixture.h"

class ResetTest : public tty_test
{
  protected:
    static std::string get(const char *name)
    {
        char value[64];
        const char *found = tty_getenv(300, name, value, sizeof value);
        return found != nullptr ? found : "(none)";
    }
};

TEST_F(ResetTest, session_keys_get_their_neutral_values)
{
    for (const char *name :
         {"LOGNAME", "SOCKADDR", "RL_TIMEOUT", "PEERNAME", "TTYPID", "LOGSUCC",
          "MTYPE", "SESSIONID", "IDLE"}) {
        ASSERT_EQ(tty_setenv(300, name, "77"), 0);
    }
    EXPECT_EQ(tty_reset_info(300), 0);
    for (const char *name : {"LOGNAME", "SOCKADDR", "RL_TIMEOUT", "PEERNAME"}) {
        EXPECT_EQ(get(name), "(none)") << name;
    }
    EXPECT_EQ(get("TTYPID"), "-1");
    for (const char *name : {"LOGSUCC", "MTYPE", "SESSIONID", "IDLE"}) {
        EXPECT_EQ(get(name), "0") << name;
    }
}

TEST_F(ResetTest, other_keys_stay)
{
    ASSERT_EQ(tty_setenv(300, "TTYDEV", "/dev/pts/1"), 0);
    ASSERT_EQ(tty_setenv(300, "SPEED", "9600"), 0);
    EXPECT_EQ(tty_reset_info(300), 0);
    EXPECT_EQ(get("TTYDEV"), "/dev/pts/1");
    EXPECT_EQ(get("SPEED"), "9600");
}

// Empty values create nothing, so the first key of a new file is TTYPID; the
// rest follow in the order in which they are stored.
TEST_F(ResetTest, a_new_file_shows_the_order_of_the_keys)
{
    EXPECT_EQ(tty_reset_info(300), 0);
    EXPECT_EQ(support::slurp(info(300)),
              "TTYPID=-1\r\nLOGSUCC=0\r\nMTYPE=0\r\nSESSIONID=0\r\n"
              "IDLE=0\r\n");
}

TEST_F(ResetTest, the_first_four_keys_create_no_file)
{
    fault_row("tty_reset_info", "open", "EACCES", "-1", "", "no file");
    // They do not even take the line's lock; the fifth does.
    fault::fail("open", 1, EACCES, 1, fault::only_path(".lock"));
    EXPECT_EQ(tty_reset_info(300), -1);
    EXPECT_FALSE(support::exists(info(300)));
    // Four refusals of an empty value, then the lock.
    const messages found = log();
    ASSERT_EQ(found.size(), 5u);
    for (int i = 0; i < 4; i++) {
        EXPECT_NE(found[static_cast<size_t>(i)].find("add null member"),
                  std::string::npos);
    }
}

TEST_F(ResetTest, a_bad_line_fails_at_the_first_key)
{
    EXPECT_EQ(tty_reset_info(1586), -1);
    // One refusal, which logs twice.
    EXPECT_EQ(log().size(), 2u);
    EXPECT_FALSE(support::exists(info(1586)));
}

TEST_F(ResetTest, reserved_lines_are_reset_too)
{
    EXPECT_EQ(tty_reset_info(80000), 0);
    EXPECT_EQ(tty_reset_info(80001), 0);
    EXPECT_TRUE(support::exists(info(80001)));
}

// Fails at each key in turn: those before it are reset, it and those after it
// are not.
TEST_F(ResetTest, a_failure_leaves_the_later_keys_untouched)
{
    fault_row("tty_reset_info", "rename", "EIO", "-1", "",
              "the keys before it reset, it and the later ones as they were");
    const std::vector<std::string> names = {
        "LOGNAME", "SOCKADDR", "RL_TIMEOUT", "PEERNAME", "TTYPID",
        "LOGSUCC", "MTYPE",    "SESSIONID",  "IDLE"};
    for (size_t failing = 0; failing < names.size(); failing++) {
        for (const std::string &name : names) {
            ASSERT_EQ(tty_setenv(300, name.c_str(), "77"), 0);
        }
        // Each of the sets replaces the file once.
        fault::fail("rename", static_cast<int>(failing) + 1, EIO);
        EXPECT_EQ(tty_reset_info(300), -1);
        for (size_t i = 0; i < names.size(); i++) {
            EXPECT_EQ(get(names[i].c_str()) == "77", i >= failing)
                << names[i] << " when " << names[failing] << " fails";
        }
    }
}
