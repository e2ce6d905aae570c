// Lines of the system log, at a log of the test's own.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <ttyline/vc.h>

#include "kit/audit.h"
#include "tests/support/privroot.h"

class KitAudit : public support::private_root_test
{
  protected:
    void SetUp() override
    {
        private_root_test::SetUp();
        sockaddr_un address = {AF_UNIX, "/dev/log"};
        log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        ASSERT_EQ(
            bind(log, reinterpret_cast<sockaddr *>(&address), sizeof address),
            0);
        kit_audit_open("unit");
    }

    void TearDown() override
    {
        close(log);
        close(kit_audit_descriptor());
        private_root_test::TearDown();
    }

    std::string line() const
    {
        char text[4096];
        const ssize_t got = recv(log, text, sizeof text, 0);
        return got < 0 ? "" : std::string(text, static_cast<size_t>(got));
    }

    static std::string name()
    {
        return "unit[" + std::to_string(getpid()) + "]: ";
    }

    int log = -1;
};

TEST_F(KitAudit, line_has_facility_auth_and_names_the_daemon)
{
    kit_audit("session-begin line=%d", 258);
    EXPECT_EQ(line(), "<38>" + name() + "session-begin line=258");
}

TEST_F(KitAudit, line_that_is_too_long_is_cut)
{
    kit_audit("%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(line().size(), 1023u);
}

TEST_F(KitAudit, log_that_takes_nothing_loses_lines_and_holds_nobody_up)
{
    for (int i = 0; i < 5000; i++) {
        kit_audit("line %d", i);
    }
    EXPECT_EQ(line(), "<38>" + name() + "line 0");
}

TEST_F(KitAudit, log_that_was_started_anew_is_found)
{
    kit_audit("before");
    EXPECT_NE(line(), "");
    close(log);
    ASSERT_EQ(unlink("/dev/log"), 0);
    kit_audit("lost");
    sockaddr_un address = {AF_UNIX, "/dev/log"};
    log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(bind(log, reinterpret_cast<sockaddr *>(&address), sizeof address),
              0);
    kit_audit("after");
    EXPECT_EQ(line(), "<38>" + name() + "after");
}

TEST_F(KitAudit, hook_of_the_session_service_is_a_line_of_the_facility_daemon)
{
    errno = 77;
    printk_syslog_ext(7, "MOD", "TAG", 2, "%s %d\r\n", "text", 5);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(line(), "<31>" + name() + "MOD/TAG: text 5");
    printk_syslog_ext(99, "MOD", "TAG", 2, "out of range");
    EXPECT_EQ(line(), "<31>" + name() + "MOD/TAG: out of range");
    printk_syslog_ext(3, "MOD", "TAG", 2, "an error");
    EXPECT_EQ(line(), "<27>" + name() + "MOD/TAG: an error");
}
