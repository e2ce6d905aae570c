// The permissions of unix paths, in directories that others may change. Each
// test is a process of its own: what was offered stays.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <ttyline/kit.h>

#include "kit/paths.h"
#include "tests/support/fault.h"
#include "tests/support/runtime.h"

static int nothing(const kit_session *, void *)
{
    return 0;
}

static std::string g_path;
static std::string g_victim;

class KitPaths : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        // Kept for the life of the process.
        kit_paths_begin(0640);
        runtime_test::SetUp();
        g_path = path("/console");
        g_victim = path("/victim");
        service.size = sizeof service;
        service.protocol = 7;
        service.path = g_path.c_str();
        service.function = nothing;
        ASSERT_EQ(kit_offer(&service), 0) << kit_error();
    }

    // A socket's path, open to all.
    static void make(const std::string &name)
    {
        sockaddr_un address = {};
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(
            bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address),
            0);
        close(fd);
        EXPECT_EQ(chmod(name.c_str(), 0777), 0);
    }

    static mode_t mode_of(const std::string &name)
    {
        struct stat status = {};
        EXPECT_EQ(stat(name.c_str(), &status), 0);
        return status.st_mode & ALLPERMS;
    }

    kit_service service = {};
};

TEST_F(KitPaths, path_that_was_made_gets_its_mode)
{
    make(g_path);
    kit_paths_mend();
    EXPECT_EQ(mode_of(g_path), 0640u);
}

TEST_F(KitPaths, what_is_no_socket_keeps_its_mode)
{
    ASSERT_EQ(mkdir(g_path.c_str(), 0755), 0);
    kit_paths_mend();
    EXPECT_EQ(mode_of(g_path), 0755u);
}

TEST_F(KitPaths, link_in_the_place_of_the_path_leads_nowhere)
{
    make(g_victim);
    ASSERT_EQ(symlink(g_victim.c_str(), g_path.c_str()), 0);
    kit_paths_mend();
    EXPECT_EQ(mode_of(g_victim), 0777u);
}

// A file that anybody can write would be the least of it.
TEST_F(KitPaths, link_that_comes_in_between_leads_nowhere)
{
    make(g_path);
    make(g_victim);
    fault::run("fstat", 1, [] {
        EXPECT_EQ(rename(g_path.c_str(), (g_path + ".old").c_str()), 0);
        EXPECT_EQ(symlink(g_victim.c_str(), g_path.c_str()), 0);
    });
    kit_paths_mend();
    EXPECT_EQ(mode_of(g_victim), 0777u);
    EXPECT_EQ(mode_of(g_path + ".old"), 0640u);
}
