// What a confined process can no longer do; each is tried in one of its own.
#include "programs/login/confine.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/runtime.h"

constexpr int NOT_CONFINED = 99;

class LoginConfine : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        support::runtime_test::SetUp();
        std::filesystem::create_directories(path("/mng/tty"));
    }

    // How a process ends that does this when it is confined, as waitpid() gives
    // it. Without root it stays its user.
    int end_of(const std::function<int()> &deed)
    {
        confinement prepared;
        EXPECT_EQ(confine_prepare("nobody", &prepared), "");
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(confine_process(&prepared) ? deed() : NOT_CONFINED);
        }
        int status = -1;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        return status;
    }
};

TEST_F(LoginConfine, bytes_can_be_moved)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    EXPECT_EQ(end_of([&ends] {
                  char byte = 'x';
                  void *memory = malloc(1 << 20);
                  const bool moved = memory != nullptr &&
                                     send(ends[0], &byte, 1, 0) == 1 &&
                                     recv(ends[1], &byte, 1, 0) == 1;
                  free(memory);
                  return moved ? 7 : 8;
              }),
              7 << 8);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(LoginConfine, files_processes_sockets_and_code_end_it)
{
    const struct {
        const char *name;
        std::function<int()> deed;
    } deeds[] = {{"open",
                  [] {
                      return open("/", O_RDONLY | O_CLOEXEC);
                  }},
                 {"fork",
                  [] {
                      return static_cast<int>(fork());
                  }},
                 {"execve",
                  [] {
                      return execl("/bin/true", "true", nullptr);
                  }},
                 {"socket",
                  [] {
                      return socket(AF_INET, SOCK_STREAM, 0);
                  }},
                 {"kill",
                  [] {
                      return kill(1, 0);
                  }},
                 {"a signal by number",
                  [] {
                      const int owner = 1;
                      return ioctl(0, FIOSETOWN, &owner);
                  }},
                 {"setuid",
                  [] {
                      return setuid(0);
                  }},
                 {"mmap", [] {
                      return mmap(nullptr, 4096, PROT_READ | PROT_EXEC,
                                  MAP_PRIVATE | MAP_ANONYMOUS, -1,
                                  0) == MAP_FAILED
                                 ? 1
                                 : 0;
                  }}};
    for (const auto &one : deeds) {
        const int status = end_of(one.deed);
        EXPECT_TRUE(WIFSIGNALED(status)) << one.name;
        EXPECT_EQ(WTERMSIG(status), SIGSYS) << one.name;
    }
}

TEST_F(LoginConfine, user_that_is_missing_or_root_is_refused)
{
    confinement prepared;
    if (geteuid() != 0) {
        EXPECT_EQ(confine_prepare("no such user", &prepared), "");
        EXPECT_FALSE(prepared.changes_user);
        return;
    }
    EXPECT_EQ(confine_prepare("no such user", &prepared),
              "no such user: no such user");
    EXPECT_EQ(confine_prepare("root", &prepared), "root has root's rights");
}

TEST_F(LoginConfine, root_that_is_not_empty_or_no_directory_is_refused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root has another root";
    }
    confinement prepared;
    const std::string root = path("/mng/tty/.empty");
    ASSERT_EQ(confine_prepare("nobody", &prepared), "");
    EXPECT_EQ(prepared.root, root);
    // And again, as a daemon that is started anew.
    EXPECT_EQ(confine_prepare("nobody", &prepared), "");
    support::spill(root + "/file", "");
    EXPECT_EQ(confine_prepare("nobody", &prepared), root + " is not empty");
    std::filesystem::remove_all(root);
    support::spill(root, "");
    EXPECT_EQ(confine_prepare("nobody", &prepared),
              root + " is not this user's directory");
}

TEST_F(LoginConfine, what_cannot_be_confined_says_so)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root changes its root";
    }
    const pid_t pid = fork();
    if (pid == 0) {
        const confinement nowhere = {"/nowhere", 65534, 65534, true};
        _exit(confine_process(&nowhere) ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}
