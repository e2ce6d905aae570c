#include "programs/shared/keys.h"

#include <gtest/gtest.h>

TEST(KeyKnown, knows_the_first_and_the_last_key)
{
    EXPECT_TRUE(key_known("COLUMNS"));
    EXPECT_TRUE(key_known("LOGNAME"));
    EXPECT_TRUE(key_known("EXECNUM"));
}

TEST(KeyKnown, compares_the_whole_name)
{
    for (const char *name : {"", "logname", "LOGNAM", "LOGNAMES", " LOGNAME"}) {
        EXPECT_FALSE(key_known(name)) << name;
    }
    EXPECT_FALSE(key_known(std::string("LOGNAME\0", 8)));
}
