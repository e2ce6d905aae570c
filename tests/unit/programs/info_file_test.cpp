#include "programs/shared/info_file.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>

class InfoFile : public testing::Test
{
  protected:
    void SetUp() override
    {
        char name[] = "/tmp/info_file_test.XXXXXX";

        ASSERT_NE(mkdtemp(name), nullptr);
        root = name;
        path = root + "/info";
    }

    void TearDown() override
    {
        std::filesystem::remove_all(root);
    }

    line_values values_of(const std::string &content) const
    {
        line_values values;
        std::ofstream(path, std::ios::binary) << content;
        EXPECT_TRUE(read_info(path, values));
        return values;
    }

    std::string root;
    std::string path;
};

TEST_F(InfoFile, values_are_those_that_the_library_gives)
{
    line_values values = values_of("LOGNAME=alice\r\nLOGNAME=bob\r\n"
                                   "PEERNAME=bare\nSPEED=\r\nno key\r\n"
                                   "ESCAPECHAR=a=b\r\nMTYPE=null\r\n"
                                   "IDLE=null");
    EXPECT_EQ(values.of["LOGNAME"], "alice");
    EXPECT_EQ(values.of["PEERNAME"], "bare\n");
    EXPECT_EQ(values.of["SPEED"], "");
    EXPECT_EQ(values.of["ESCAPECHAR"], "a=b");
    EXPECT_EQ(values.of["MTYPE"], "null");
    EXPECT_EQ(values.of["IDLE"], "");
    EXPECT_FALSE(values.whole);
    EXPECT_TRUE(values_of("LOGNAME=alice\r\n").whole);
}

TEST_F(InfoFile, a_file_that_is_missing_holds_nothing)
{
    line_values values;

    EXPECT_TRUE(read_info(path, values));
    EXPECT_TRUE(values.of.empty());
    EXPECT_TRUE(plain_or_absent(path));
}

TEST_F(InfoFile, what_is_no_plain_file_is_not_read)
{
    line_values values;

    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(read_info(path, values));
    EXPECT_FALSE(plain_or_absent(path));
    std::filesystem::remove(path);
    std::filesystem::create_symlink("/dev/zero", path);
    EXPECT_FALSE(read_info(path, values));
    EXPECT_FALSE(plain_or_absent(path));
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_FALSE(read_info(path, values));
    EXPECT_FALSE(plain_or_absent(path));
}

TEST_F(InfoFile, what_is_far_too_large_is_not_read)
{
    line_values values;

    std::ofstream(path) << "";
    std::filesystem::resize_file(path, 1 << 20);
    EXPECT_FALSE(read_info(path, values));
}

TEST_F(InfoFile, what_was_stored_is_missed)
{
    const line_values before = values_of("A=1\r\nB=2\r\n");

    EXPECT_EQ(missing_after(before, values_of("A=1\r\nB=3\r\n"), {{"B", "3"}}),
              "");
    EXPECT_EQ(missing_after(before, values_of("A=1\r\nB=2\r\n"), {{"B", "3"}}),
              "B");
    EXPECT_EQ(missing_after(before, values_of("A=1\r\n"), {{"B", "3"}}), "B");
    EXPECT_EQ(missing_after(before, values_of("A=1\r\n"), {{"B", ""}}), "B");
}

TEST_F(InfoFile, what_was_there_before_is_missed)
{
    const line_values before = values_of("A=1\r\nB=2\r\nC=12\r\n");

    EXPECT_EQ(missing_after(before, values_of("A=7\r\n"), {{"A", "7"}}), "B");
    EXPECT_EQ(
        missing_after(before, values_of("A=7\r\nB=2\r\nC=1"), {{"A", "7"}}),
        "the end of the file");
}

TEST_F(InfoFile, what_a_session_took_is_not_missed)
{
    const line_values before = values_of("A=1\r\nB=2\r\nSESSIONID=x\r\n");
    const line_values other = values_of("A=7\r\nSESSIONID=y\r\n");
    const line_values reset = values_of("A=7\r\nSESSIONID=0\r\n");

    EXPECT_EQ(missing_after(before, other, {{"A", "7"}}), "");
    EXPECT_EQ(missing_after(before, reset, {{"A", "7"}, {"SESSIONID", "0"}}),
              "B");
}
