// Line 0 is read from the tree of instance 0.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/fault.h"
#include "tests/support/machine.h"
#include "tests/unit/tty/get_fixture.h"
#include "tty/store.h"

class GetLine0 : public Get
{
  protected:
    void SetUp() override
    {
        Get::SetUp();
        std::filesystem::create_directories(path("/inst/3/mng/tty"));
        std::filesystem::create_directories(path("/inst/0/mng/tty"));
        setenv("TMPDIR", path("/inst/3").c_str(), 1);
    }

    std::string get0(const char *name)
    {
        memset(buf, 0x5a, sizeof buf);
        const char *value = tty_get_member(0, name, buf, 64);
        return value == nullptr ? "(null)" : value;
    }
};

TEST_F(GetLine0, is_read_from_instance0_beside_the_own_one)
{
    support::spill(path("/inst/0/mng/tty/.tty_info_0"), "HOME=zero\r\n");
    support::spill(path("/inst/3/mng/tty/.tty_info_0"), "HOME=three\r\n");
    EXPECT_EQ(get0("HOME"), "zero");
    EXPECT_TRUE(support::exists(path("/inst/0/mng/tty/.tty_info_0.lock")));
    EXPECT_FALSE(support::exists(path("/inst/3/mng/tty/.tty_info_0.lock")));
}

TEST_F(GetLine0, of_instance0_is_its_own)
{
    setenv("TMPDIR", path("/inst/0").c_str(), 1);
    support::spill(path("/inst/0/mng/tty/.tty_info_0"), "HOME=zero\r\n");
    EXPECT_EQ(get0("HOME"), "zero");
}

TEST_F(GetLine0, slash_at_the_end_of_tmpdir_is_the_last_one)
{
    setenv("TMPDIR", path("/inst/").c_str(), 1);
    support::spill(path("/inst/0/mng/tty/.tty_info_0"), "HOME=zero\r\n");
    EXPECT_EQ(get0("HOME"), "zero");
}

TEST_F(GetLine0, without_tmpdir_is_null_without_a_message)
{
    support::not_in_guest("std::filesystem calls mkdir() too");
    const int opens = fault::watch("open");
    unsetenv("TMPDIR");
    EXPECT_EQ(get0("HOME"), "(null)");
    EXPECT_TRUE(cleared(64));
    EXPECT_EQ(fault::seen(opens), 0);
    EXPECT_EQ(fault::calls("mkdir"), 0);
}

TEST_F(GetLine0, with_a_tmpdir_without_slash_is_null_without_a_message)
{
    support::not_in_guest("std::filesystem calls mkdir() too");
    const int opens = fault::watch("open");
    setenv("TMPDIR", "inst", 1);
    EXPECT_EQ(get0("HOME"), "(null)");
    setenv("TMPDIR", "", 1);
    EXPECT_EQ(get0("HOME"), "(null)");
    EXPECT_EQ(fault::seen(opens), 0);
    EXPECT_EQ(fault::calls("mkdir"), 0);
}

TEST_F(GetLine0, makes_no_directory)
{
    std::filesystem::remove_all(path("/inst/0"));
    EXPECT_EQ(get0("HOME"), "(null)");
    EXPECT_FALSE(support::exists(path("/inst/0")));
    const std::string lock = path("/inst/0/mng/tty/.tty_info_0.lock");
    const messages log =
        support::lines_of(path("/inst/3/mng/tty/.tty_lib_dump.txt"));
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(support::without_stamp(log[0]),
              ids("tty_get_member", 0) + "open file " + lock +
                  " fail errno:2, No such file or directory\n");
}

TEST_F(GetLine0, takes_the_first127_characters_of_tmpdir)
{
    support::spill(path("/inst/0/mng/tty/.tty_info_0"), "HOME=zero\r\n");
    // The last slash lies behind what is taken.
    setenv("TMPDIR", path("/inst/" + std::string(200, 'd') + "/x").c_str(), 1);
    EXPECT_EQ(get0("HOME"), "zero");
}

TEST_F(GetLine0, whose_path_does_not_fit_is_null_and_creates_nothing)
{
    // "0/mng/tty/.tty_info_0" has 21 characters.
    for (const size_t slash : {106u, 107u, 126u}) {
        std::string directory = path("/");
        directory.append(slash - directory.size(), 'd');
        std::filesystem::create_directories(directory + "/0/mng/tty");
        setenv("TMPDIR", (directory + "/3").c_str(), 1);
        EXPECT_EQ(get0("HOME"), "(null)") << slash;
        EXPECT_TRUE(std::filesystem::is_empty(directory + "/0/mng/tty"));
    }
    std::string directory = path("/");
    directory.append(105 - directory.size(), 'e');
    std::filesystem::create_directories(directory + "/0/mng/tty");
    support::spill(directory + "/0/mng/tty/.tty_info_0", "HOME=fits\r\n");
    setenv("TMPDIR", (directory + "/3").c_str(), 1);
    EXPECT_EQ(get0("HOME"), "fits");
}
