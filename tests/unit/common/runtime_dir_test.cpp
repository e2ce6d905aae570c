#include "common/runtime_dir.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/privroot.h"
#include "tests/support/runtime.h"

// The other face's copy of the same function.
namespace face_vc
{
char *tty_make_path(char *buf, unsigned int size, const char *name);
}

static const char NAME[] = "/mng/tty/.vc_dump.txt";

class MakePath : public support::runtime_test
{
  protected:
    void remove_directories() const
    {
        ASSERT_EQ(rmdir(path("/mng/tty").c_str()), 0);
        ASSERT_EQ(rmdir(path("/mng").c_str()), 0);
    }

    // Extends TMPDIR by a name that makes it this long; not created.
    std::string lengthen_tmpdir(size_t length) const
    {
        std::string longer = runtime_dir + "/";
        longer.append(length - longer.size(), 'd');
        EXPECT_EQ(setenv("TMPDIR", longer.c_str(), 1), 0);
        return longer;
    }

    static mode_t mode_of(const std::string &name)
    {
        struct stat status = {};
        EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
        return status.st_mode & 07777;
    }

    char buf[TTY_PATH_SIZE] = {};
};

TEST_F(MakePath, buffers_are_paths_of128_bytes)
{
    EXPECT_EQ(TTY_PATH_SIZE, 128u);
}

TEST_F(MakePath, is_tmpdir_followed_by_the_name)
{
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_EQ(buf, path(NAME));
}

TEST_F(MakePath, reads_tmpdir_on_every_call)
{
    tty_make_path(buf, sizeof buf, NAME);
    setenv("TMPDIR", "/elsewhere", 1);
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_STREQ(buf, "/elsewhere/mng/tty/.vc_dump.txt");
}

TEST_F(MakePath, clears_the_whole_buffer_behind_the_path)
{
    memset(buf, 0x5a, sizeof buf);
    tty_make_path(buf, sizeof buf, NAME);
    for (size_t i = strlen(buf); i < sizeof buf; i++) {
        ASSERT_EQ(buf[i], '\0') << i;
    }
}

TEST_F(MakePath, null_buffer_gives_null_and_makes_nothing)
{
    EXPECT_EQ(tty_make_path(nullptr, sizeof buf, NAME), nullptr);
    EXPECT_EQ(fault::calls("mkdir"), 0);
}

TEST_F(MakePath, null_buffer_does_not_count_as_the_first_call)
{
    tty_make_path(nullptr, sizeof buf, NAME);
    tty_make_path(buf, sizeof buf, NAME);
    EXPECT_TRUE(support::exists(path("/mng/tty")));
}

TEST_F(MakePath, first_call_makes_both_directories_open_to_all)
{
    umask(0);
    tty_make_path(buf, sizeof buf, NAME);
    EXPECT_EQ(mode_of(path("/mng")), 0777u);
    EXPECT_EQ(mode_of(path("/mng/tty")), 0777u);
    EXPECT_FALSE(support::exists(path(NAME)));
}

TEST_F(MakePath, the_directories_follow_the_creation_mask)
{
    umask(027);
    tty_make_path(buf, sizeof buf, NAME);
    EXPECT_EQ(mode_of(path("/mng")), 0750u);
    EXPECT_EQ(mode_of(path("/mng/tty")), 0750u);
}

TEST_F(MakePath, directories_are_made_once_per_process)
{
    tty_make_path(buf, sizeof buf, NAME);
    remove_directories();
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_FALSE(support::exists(path("/mng")));
    EXPECT_EQ(fault::calls("mkdir"), 2);
}

TEST_F(MakePath, existing_directories_are_the_normal_case)
{
    make_directories();
    support::spill(path("/mng/tty/kept"), "x");
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_EQ(support::slurp(path("/mng/tty/kept")), "x");
}

TEST_F(MakePath, failures_to_make_them_are_not_reported_and_not_repeated)
{
    fault_row("tty_make_path", "mkdir", "EACCES", "the path", "",
              "no directory; it is not tried again");
    fault::fail("mkdir", 1, EACCES, 2);
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_EQ(buf, path(NAME));
    EXPECT_EQ(fault::calls("mkdir"), 2);
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_EQ(fault::calls("mkdir"), 2);
    EXPECT_FALSE(support::exists(path("/mng")));
}

TEST_F(MakePath, the_inner_directory_is_tried_also_when_the_outer_one_failed)
{
    fault_row("tty_make_path", "mkdir", "EACCES", "the path", "",
              "the inner directory, if the outer one is there");
    ASSERT_EQ(mkdir(path("/mng").c_str(), 0777), 0);
    fault::fail("mkdir", 1, EACCES);
    tty_make_path(buf, sizeof buf, NAME);
    EXPECT_TRUE(support::exists(path("/mng/tty")));
}

TEST_F(MakePath, a_file_in_the_place_of_the_directory_is_left_alone)
{
    support::spill(path("/mng"), "file");
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_EQ(support::slurp(path("/mng")), "file");
}

TEST_F(MakePath, each_face_makes_the_directories_on_its_own_first_call)
{
    tty_make_path(buf, sizeof buf, NAME);
    remove_directories();
    EXPECT_EQ(face_vc::tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_EQ(buf, path(NAME));
    EXPECT_TRUE(support::exists(path("/mng/tty")));
    remove_directories();
    face_vc::tty_make_path(buf, sizeof buf, NAME);
    tty_make_path(buf, sizeof buf, NAME);
    EXPECT_FALSE(support::exists(path("/mng")));
}

TEST_F(MakePath, path_that_fills_the_buffer_to_its_terminator_fits)
{
    const std::string prefix = lengthen_tmpdir(127 - strlen(NAME));
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_EQ(buf, prefix + NAME);
    EXPECT_EQ(strlen(buf), 127u);
}

TEST_F(MakePath, path_one_longer_gives_null_and_an_empty_buffer)
{
    lengthen_tmpdir(128 - strlen(NAME));
    memset(buf, 0x5a, sizeof buf);
    errno = 0;
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string(sizeof buf, '\0'));
}

TEST_F(MakePath, never_writes_behind_the_given_size)
{
    for (const unsigned int size : {0u, 1u, 2u, 20u, 60u}) {
        memset(buf, 0x5a, sizeof buf);
        tty_make_path(buf, size, NAME);
        for (size_t i = size; i < sizeof buf; i++) {
            ASSERT_EQ(buf[i], 0x5a) << size << " " << i;
        }
    }
}

TEST_F(MakePath, the_prefix_may_be_longer_than_the_buffer)
{
    lengthen_tmpdir(200);
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(MakePath, directories_are_tried_also_when_the_path_does_not_fit)
{
    char little[8];
    EXPECT_EQ(tty_make_path(little, sizeof little, NAME), nullptr);
    EXPECT_TRUE(support::exists(path("/mng/tty")));
}

TEST_F(MakePath, directory_names_are_cut_at127_characters)
{
    const std::string prefix = lengthen_tmpdir(125);
    ASSERT_EQ(mkdir(prefix.c_str(), 0777), 0);
    tty_make_path(buf, sizeof buf, NAME);
    EXPECT_TRUE(support::exists(prefix + "/m"));
    EXPECT_FALSE(support::exists(prefix + "/mng"));
}

TEST_F(MakePath, first_calls_of_many_threads_all_succeed)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([this] {
            char own[TTY_PATH_SIZE];
            EXPECT_EQ(tty_make_path(own, sizeof own, NAME), own);
            EXPECT_EQ(own, path(NAME));
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(support::exists(path("/mng/tty")));
}

class MakePathAtRoot : public support::private_root_test
{
  protected:
    char buf[TTY_PATH_SIZE] = {};
};

TEST_F(MakePathAtRoot, tmpdir_unset_gives_a_double_slash)
{
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_STREQ(buf, "//mng/tty/.vc_dump.txt");
    EXPECT_TRUE(support::exists("/mng/tty"));
}

TEST_F(MakePathAtRoot, empty_tmpdir_gives_the_name_alone)
{
    setenv("TMPDIR", "", 1);
    EXPECT_EQ(tty_make_path(buf, sizeof buf, NAME), buf);
    EXPECT_STREQ(buf, "/mng/tty/.vc_dump.txt");
    EXPECT_TRUE(support::exists("/mng/tty"));
}
