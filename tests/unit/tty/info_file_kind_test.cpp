// What lies in place of an information file need not be a file.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/lock_holder.h"
#include "tests/unit/tty/tty_fixture.h"
#include "tty/store.h"

class InfoFileKind : public tty_test
{
  protected:
    static constexpr unsigned int LINE = 5;

    // How it lies there, and the error that it is refused with.
    struct kind {
        const char *name;
        std::function<int(const char *path)> make;
        int error;
    };

    static std::vector<kind> kinds()
    {
        return {{"device without an end",
                 [](const char *path) {
                     return symlink("/dev/zero", path);
                 },
                 EINVAL},
                {"pipe",
                 [](const char *path) {
                     return mkfifo(path, 0666);
                 },
                 EINVAL},
                {"directory",
                 [](const char *path) {
                     return mkdir(path, 0777);
                 },
                 EISDIR}};
    }

    // Runs the operation on each kind in a child, which may hang.
    void expect_refusal(const char *function, const std::string &named,
                        const std::function<bool()> &operation)
    {
        for (const kind &one : kinds()) {
            remove(info(LINE).c_str());
            unlink(path("/mng/tty/.tty_lib_dump.txt").c_str());
            ASSERT_EQ(one.make(info(LINE).c_str()), 0) << one.name;
            EXPECT_EQ(support::in_child(operation, 5000), 0) << one.name;
            const auto texts = log();
            ASSERT_EQ(texts.size(), 1u) << one.name;
            EXPECT_EQ(texts[0].find(std::string(function) + "(ttyno 5:"), 0u);
            const std::string end = "open file " + named +
                                    " fail errno:" + std::to_string(one.error) +
                                    ", " + strerror(one.error) + "\n";
            EXPECT_NE(texts[0].find(end), std::string::npos) << texts[0];
            EXPECT_EQ(lock_error_elsewhere(info(LINE) + ".lock"), 0);
        }
    }
};

TEST_F(InfoFileKind, get_refuses_what_is_no_file_as_if_it_had_not_opened)
{
    expect_refusal("tty_get_member", info(LINE), [] {
        char buf[64] = "x";
        return tty_get_member(LINE, "HOME", buf, sizeof buf) == nullptr &&
               buf[0] == '\0';
    });
}

// The message names the temporary file, as that of an open that fails does.
TEST_F(InfoFileKind, set_refuses_what_is_no_file_as_if_it_had_not_opened)
{
    expect_refusal("tty_set_member", info(LINE) + ".tmp", [] {
        return tty_set_member(LINE, "HOME", "/root") == -1;
    });
    EXPECT_FALSE(support::exists(info(LINE) + ".tmp"));
}

TEST_F(InfoFileKind, file_that_cannot_be_looked_at_is_refused)
{
    fault_row("tty_get_member", "fstat", "EIO",
              "a null pointer, the buffer cleared",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n",
              "the lock released");
    fault_row("tty_set_member", "fstat", "EIO", "-1",
              "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, %s\n",
              "the old content; the lock released");
    char buf[64];
    support::spill(info(LINE), "HOME=old\r\n");
    fault::fail("fstat", 1, EIO, 2);
    EXPECT_EQ(tty_get_member(LINE, "HOME", buf, sizeof buf), nullptr);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(tty_set_member(LINE, "HOME", "/root"), -1);
    EXPECT_EQ(support::slurp(info(LINE)), "HOME=old\r\n");
    EXPECT_EQ(log().size(), 2u);
    EXPECT_EQ(lock_error_elsewhere(info(LINE) + ".lock"), 0);
}

// The library reads a file in blocking mode, and leaves it so.
TEST_F(InfoFileKind, file_behind_a_link_is_one)
{
    char buf[64];
    const std::string target = path("/mng/tty/target");
    support::spill(target, "HOME=old\r\n");
    ASSERT_EQ(symlink(target.c_str(), info(LINE).c_str()), 0);
    EXPECT_STREQ(tty_get_member(LINE, "HOME", buf, sizeof buf), "old");
    EXPECT_EQ(tty_set_member(LINE, "HOME", "new"), 0);
    EXPECT_STREQ(tty_get_member(LINE, "HOME", buf, sizeof buf), "new");
}
