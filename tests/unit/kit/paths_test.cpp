// The permissions of unix paths, in directories that others may change. Each
// test is a process of its own: what was offered stays.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <ttyline/kit.h>

#include "kit/paths.h"
#include "kit/table.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"

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

    // Whether a peer of the path is let in.
    bool admits(uid_t user, gid_t group, gid_t other_group = 4713) const
    {
        kit_entry *entry = kit_entry_make(258);
        entry->family = AF_UNIX;
        entry->session.service = &service;
        entry->session.peer_uid = user;
        entry->session.peer_gid = group;
        entry->groups[0] = other_group;
        entry->group_count = 1;
        const bool admitted = kit_paths_admit(entry);
        kit_entry_free(entry);
        return admitted;
    }

    static bool something_was_made()
    {
        pollfd watched = {kit_paths_descriptor(), POLLIN, 0};
        return poll(&watched, 1, 0) == 1;
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

TEST_F(KitPaths, path_that_is_made_is_noticed)
{
    kit_paths_watch(&service);
    EXPECT_FALSE(something_was_made());
    make(g_path);
    EXPECT_TRUE(something_was_made());
    kit_paths_mend();
    EXPECT_FALSE(something_was_made());
}

// Its directory is where the daemon works.
TEST_F(KitPaths, path_without_a_directory_is_noticed_too)
{
    static kit_service here;
    ASSERT_EQ(chdir(runtime_dir.c_str()), 0);
    here = service;
    here.path = "here";
    ASSERT_EQ(kit_offer(&here), 0);
    kit_paths_watch(&here);
    make("here");
    EXPECT_TRUE(something_was_made());
    kit_paths_mend();
    EXPECT_EQ(mode_of("here"), 0640u);
    ASSERT_EQ(chdir("/"), 0);
}

TEST_F(KitPaths, peers_are_let_in_as_the_mode_says)
{
    make(g_path);
    const uid_t own = geteuid();
    const gid_t group = getegid();
    for (const mode_t mode : {0600u, 0060u, 0006u, 0200u, 0020u, 0002u}) {
        kit_paths_begin(mode);
        EXPECT_TRUE(admits(0, 4711)) << "root, " << mode;
        if (own != 0) {
            EXPECT_EQ(admits(own, group), (mode & 0200) != 0) << mode;
        }
        EXPECT_EQ(admits(4711, group), (mode & 0020) != 0) << mode;
        EXPECT_EQ(admits(4711, 4712, group), (mode & 0020) != 0) << mode;
        EXPECT_EQ(admits(4711, 4712), (mode & 0002) != 0) << mode;
        EXPECT_EQ(mode_of(g_path), mode);
    }
}

// Whoever the daemon runs as is nobody special to a path of his.
TEST_F(KitPaths, owner_is_let_in_as_the_mode_says)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root becomes somebody else";
    }
    ASSERT_EQ(chown(runtime_dir.c_str(), 4711, 4711), 0);
    EXPECT_EQ(support::in_child([this] {
                  if (setegid(4711) != 0 || seteuid(4711) != 0) {
                      return false;
                  }
                  make(g_path);
                  kit_paths_begin(0600);
                  const bool with = admits(4711, 4711) && !admits(4712, 4711);
                  kit_paths_begin(0060);
                  return with && !admits(4711, 4711) && admits(4712, 4711);
              }),
              0);
}

// A path of somebody else's is not this daemon's to change, nor is its owner
// the one whom the mode means.
TEST_F(KitPaths, path_of_another_user_keeps_its_mode)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root gives a path away";
    }
    make(g_path);
    ASSERT_EQ(chown(g_path.c_str(), 4711, 4711), 0);
    kit_paths_mend();
    EXPECT_EQ(mode_of(g_path), 0777u);
    EXPECT_FALSE(admits(4711, 4711));
}

// Those whom the mode keeps out are refused all the same.
TEST_F(KitPaths, path_whose_mode_cannot_be_set_stays_and_is_refused)
{
    fault_row("kit_paths_mend", "chmod", "EPERM", "nothing", "",
              "the path as it was");
    fault_row("kit_paths_mend", "open", "EMFILE", "nothing", "",
              "the path as it was");
    fault_row("kit_paths_mend", "fstat", "EIO", "nothing", "",
              "the path as it was");
    fault_row("kit_paths_admit", "open", "EMFILE",
              "what the mode says of the daemon's own user and group", "",
              "the path as it was");
    make(g_path);
    const struct {
        const char *call;
        int error;
    } cases[] = {{"chmod", EPERM}, {"open", EMFILE}, {"fstat", EIO}};
    for (const auto &one : cases) {
        fault::fail(one.call, 1, one.error, fault::ALWAYS);
        kit_paths_mend();
        EXPECT_EQ(mode_of(g_path), 0777u) << one.call;
        EXPECT_FALSE(admits(4711, 4712)) << one.call;
        EXPECT_TRUE(admits(0, 0)) << one.call;
        fault::reset();
    }
    kit_paths_mend();
    EXPECT_EQ(mode_of(g_path), 0640u);
}

TEST_F(KitPaths, path_that_cannot_be_watched_gets_its_mode_with_a_peer)
{
    fault_row("kit_paths_watch", "inotify_add_watch", "ENOSPC", "nothing", "",
              "the path gets its mode when somebody connects");
    static kit_service below;
    ASSERT_EQ(mkdir(path("/below").c_str(), 0700), 0);
    const std::string name = path("/below/console");
    below = service;
    below.path = name.c_str();
    fault::fail("inotify_add_watch", 1, ENOSPC);
    kit_paths_watch(&below);
    make(name);
    EXPECT_FALSE(something_was_made());
    service.path = name.c_str();
    EXPECT_FALSE(admits(4711, 4711));
    EXPECT_EQ(mode_of(name), 0640u);
}

class KitPathsFirst : public support::runtime_test
{
};

TEST_F(KitPathsFirst, nothing_is_watched_without_a_descriptor)
{
    fault_row("kit_paths_begin", "inotify_init1", "EMFILE", "nothing", "",
              "a path gets its mode when somebody connects");
    fault::fail("inotify_init1", 1, EMFILE);
    kit_paths_begin(0640);
    EXPECT_EQ(kit_paths_descriptor(), -1);
    kit_service service = {};
    service.path = "/tmp/console";
    const int watches = fault::watch("inotify_add_watch");
    kit_paths_watch(&service);
    EXPECT_EQ(fault::seen(watches), 0);
}
