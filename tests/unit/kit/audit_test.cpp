// Lines of the system log, at a log of the test's own.
#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <ttyline/vc.h>

#include "kit/audit.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
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
    printk_syslog_ext(-1, "MOD", "TAG", 2, "below the range");
    EXPECT_EQ(line(), "<31>" + name() + "MOD/TAG: below the range");
}

TEST_F(KitAudit, line_that_cannot_be_sent_is_lost)
{
    fault_row("kit_audit", "sendto", "ECONNREFUSED", "nothing, errno as it was",
              "", "the line is lost");
    fault::fail("sendto", 1, ECONNREFUSED);
    errno = 77;
    kit_audit("one");
    EXPECT_EQ(errno, 77);
    kit_audit("two");
    EXPECT_EQ(line(), "<38>" + name() + "two");
}

class KitAuditFirst : public support::private_root_test
{
};

TEST_F(KitAuditFirst, log_without_a_socket_loses_its_lines)
{
    fault_row("kit_audit_open", "socket", "EMFILE", "nothing", "",
              "lines are lost until it is opened again");
    fault::fail("socket", 1, EMFILE);
    kit_audit_open("unit");
    EXPECT_EQ(kit_audit_descriptor(), -1);
    errno = 77;
    kit_audit("lost");
    EXPECT_EQ(errno, 77);
    kit_audit_open("unit");
    EXPECT_GE(kit_audit_descriptor(), 0);
    close(kit_audit_descriptor());
}
