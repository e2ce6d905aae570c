// Closing what was inherited.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kit/descriptors.h"
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
