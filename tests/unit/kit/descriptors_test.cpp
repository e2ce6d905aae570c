// Closing what was inherited.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <stddef.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kit/descriptors.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"

static bool open_number(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

TEST(KitDescriptors, all_but_the_own_are_closed)
{
    EXPECT_EQ(support::in_child([] {
                  for (int fd = 3; fd < 40; fd++) {
                      dup2(2, fd);
                  }
                  const int own[] = {30, -1, 7, 3, 31};
                  kit_close_all_but(own, 5);
                  for (int fd = 0; fd < 60; fd++) {
                      const bool kept =
                          fd <= 3 || fd == 7 || fd == 30 || fd == 31;
                      if (open_number(fd) != kept) {
                          return false;
                      }
                  }
                  return true;
              }),
              0);
}

TEST(KitDescriptors, none_is_kept_when_none_is_named)
{
    EXPECT_EQ(support::in_child([] {
                  dup2(2, 3);
                  dup2(2, 500);
                  const int none = -1;
                  kit_close_all_but(&none, 1);
                  return open_number(2) && !open_number(3) && !open_number(500);
              }),
              0);
}

// As an older kernel answers.
static bool without_close_range()
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof program / sizeof *program, program};

    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0u, &filter) == 0 &&
           syscall(SYS_close_range, 900u, 900u, 0u) != 0;
}

// Numbers 3 to 39 are open; of these the own stay.
static bool own_are_left()
{
    const int own[] = {30, -1, 7, 3};

    for (int fd = 3; fd < 40; fd++) {
        dup2(2, fd);
    }
    kit_close_all_but(own, 4);
    for (int fd = 0; fd < 60; fd++) {
        if (open_number(fd) != (fd <= 3 || fd == 7 || fd == 30)) {
            return false;
        }
    }
    return true;
}

TEST(KitDescriptors, older_kernel_tells_which_are_open)
{
    EXPECT_EQ(support::in_child([] {
                  return without_close_range() && own_are_left();
              }),
              0);
}

// Then every number is tried that there can be.
TEST(KitDescriptors, older_kernel_without_proc_has_them_closed_by_number)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root takes /proc away";
    }
    EXPECT_EQ(support::in_child([] {
                  const rlimit limit = {64, 64};
                  return unshare(CLONE_NEWNS) == 0 &&
                         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE,
                               nullptr) == 0 &&
                         mount("none", "/proc", "tmpfs", 0, nullptr) == 0 &&
                         setrlimit(RLIMIT_NOFILE, &limit) == 0 &&
                         without_close_range() && own_are_left();
              }),
              0);
}

TEST(KitDescriptors, what_the_kernel_does_not_close_is_closed_by_number)
{
    fault_row("kit_close_all_but", "syscall", "EPERM", "nothing", "",
              "the descriptors are closed one by one");
    fault_row("kit_close_all_but", "opendir", "EMFILE", "nothing", "",
              "every number up to the limit is closed");
    EXPECT_EQ(support::in_child([] {
                  fault::reset();
                  fault::fail("syscall", 1, EPERM, fault::ALWAYS);
                  return own_are_left();
              }),
              0);
    EXPECT_EQ(support::in_child([] {
                  const rlimit limit = {64, 64};
                  fault::reset();
                  fault::fail("syscall", 1, EPERM, fault::ALWAYS);
                  fault::fail("opendir", 1, EMFILE);
                  return setrlimit(RLIMIT_NOFILE, &limit) == 0 &&
                         own_are_left();
              }),
              0);
}

// Two that are neighbours leave nothing to close between them.
TEST(KitDescriptors, lowest_number_may_be_an_own_one)
{
    EXPECT_EQ(support::in_child([] {
                  for (int fd = 3; fd < 10; fd++) {
                      dup2(2, fd);
                  }
                  const int own[] = {4, 3};
                  kit_close_all_but(own, 2);
                  return open_number(3) && open_number(4) && !open_number(5);
              }),
              0);
}
