#include "programs/login/name.h"

#include <gtest/gtest.h>

#include <string>

TEST(LoginName, names_of_people_and_of_directories_are_taken)
{
    for (const char *name :
         {"a", "alice", "alice.b-c_d", "x$", "_apt", "NORTH\\alice",
          "alice@north", "alice smith", "zo\xc3\xab"}) {
        EXPECT_TRUE(login_name_acceptable(name)) << name;
    }
}

TEST(LoginName, options_are_no_names)
{
    for (const char *name : {"-", "-f", "-froot", "--help"}) {
        EXPECT_FALSE(login_name_acceptable(name)) << name;
    }
}

TEST(LoginName, control_characters_are_in_no_name)
{
    for (char byte = 1; byte < ' '; byte++) {
        EXPECT_FALSE(
            login_name_acceptable((std::string("a") + byte + "b").c_str()))
            << static_cast<int>(byte);
    }
    EXPECT_FALSE(login_name_acceptable("a\177"));
    EXPECT_FALSE(login_name_acceptable("\033[2J"));
}

TEST(LoginName, name_is_not_empty_and_has_no_space_around_it)
{
    for (const char *name : {"", " ", " alice", "alice "}) {
        EXPECT_FALSE(login_name_acceptable(name)) << '"' << name << '"';
    }
}

TEST(LoginName, name_has_room_for_its_end)
{
    EXPECT_TRUE(
        login_name_acceptable(std::string(LOGIN_NAME_SIZE - 1, 'a').c_str()));
    EXPECT_FALSE(
        login_name_acceptable(std::string(LOGIN_NAME_SIZE, 'a').c_str()));
}
