#include "programs/ttyctl/store.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

class TtyctlStore : public testing::Test
{
  protected:
    void SetUp() override
    {
        char name[] = "/tmp/ttyctl_store_test.XXXXXX";

        ASSERT_NE(mkdtemp(name), nullptr);
        root = name;
        for (const char *instance : {"/0", "/3"}) {
            std::filesystem::create_directories(root + instance + "/mng/tty");
        }
        setenv("TMPDIR", (root + "/3").c_str(), 1);
    }

    void TearDown() override
    {
        std::filesystem::remove_all(root);
    }

    void make(const std::string &name) const
    {
        std::ofstream(root + name) << "";
    }

    std::string root;
    std::set<unsigned> lines;
    std::string directory;
};

TEST_F(TtyctlStore, a_line_has_a_number_of_the_store)
{
    unsigned line = 7;
    for (const char *text : {"1586", "79999", "80002", "-1", "", "5x"}) {
        EXPECT_FALSE(parse_line(text, line)) << text;
    }
    EXPECT_EQ(line, 7U);
    EXPECT_TRUE(parse_line("1585", line));
    EXPECT_TRUE(parse_line("80001", line));
    EXPECT_EQ(line, 80001U);
}

TEST_F(TtyctlStore, line_0_is_read_in_instance_0_and_written_in_its_own)
{
    EXPECT_EQ(info_to_read(0), root + "/0/mng/tty/.tty_info_0");
    EXPECT_EQ(info_to_write(0), root + "/3/mng/tty/.tty_info_0");
    EXPECT_EQ(info_to_read(5), root + "/3/mng/tty/.tty_info_5");
    EXPECT_EQ(info_to_write(5), info_to_read(5));
    EXPECT_EQ(lock_of(info_to_read(5)), info_to_read(5) + ".lock");
}

TEST_F(TtyctlStore, line_0_needs_a_directory_beside_its_own)
{
    setenv("TMPDIR", "relative", 1);
    EXPECT_EQ(info_to_read(0), "");
    unsetenv("TMPDIR");
    EXPECT_EQ(info_to_read(0), "");
    EXPECT_EQ(info_to_write(0), "//mng/tty/.tty_info_0");
}

TEST_F(TtyctlStore, a_path_that_the_library_cannot_build_does_not_fit)
{
    EXPECT_TRUE(info_fits(std::string(127, 'x')));
    EXPECT_FALSE(info_fits(std::string(128, 'x')));
    EXPECT_TRUE(socket_fits(std::string(99, 'x')));
    EXPECT_FALSE(socket_fits(std::string(100, 'x')));
}

TEST_F(TtyctlStore, finds_the_lines_that_have_a_file)
{
    for (const char *name :
         {"5", "300", "80001", "0", "007", "1586", "8.tmp", "9.lock", ""}) {
        make(std::string("/3/mng/tty/.tty_info_") + name);
    }
    make("/3/mng/tty/tty_info_4");
    ASSERT_TRUE(find_lines(lines, directory));
    EXPECT_EQ(directory, root + "/3/mng/tty");
    EXPECT_EQ(lines, (std::set<unsigned>{5, 300, 80001}));
    make("/0/mng/tty/.tty_info_0");
    ASSERT_TRUE(find_lines(lines, directory));
    EXPECT_EQ(lines, (std::set<unsigned>{0, 5, 300, 80001}));
}

TEST_F(TtyctlStore, says_which_directory_is_missing)
{
    setenv("TMPDIR", (root + "/none").c_str(), 1);
    EXPECT_FALSE(find_lines(lines, directory));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(directory, root + "/none/mng/tty");
}
