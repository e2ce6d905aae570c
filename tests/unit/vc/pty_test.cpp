#include "vc/pty.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/vc_fixture.h"

using PtyTest = VcTest;

static termios settings_of(int fd)
{
    termios settings = {};
    EXPECT_EQ(tcgetattr(fd, &settings), 0);
    return settings;
}

TEST_F(PtyTest, each_step_of_the_master_has_its_number_and_errno)
{
    fault_row("vc_ptym_open", "grantpt", "EACCES", "-2 and the errno", "",
              "the master closed");
    fault_row("vc_ptym_open", "unlockpt", "EACCES", "-3 and the errno", "",
              "the master closed");
    fault_row("vc_ptym_open", "ptsname_r", "EACCES", "-4 and the errno", "",
              "the master closed");
    const struct {
        const char *call;
        int number;
    } steps[] = {{"grantpt", -2}, {"unlockpt", -3}, {"ptsname_r", -4}};
    for (const auto &step : steps) {
        char name[20];
        const int before = dup(0);
        close(before);
        fault::fail(step.call, 1, EACCES);
        EXPECT_EQ(vc_ptym_open(name, sizeof name), step.number);
        EXPECT_EQ(errno, EACCES);
        EXPECT_STREQ(name, "/dev/ptmx");
        EXPECT_FALSE(is_open(before));
        fault::reset();
    }
    EXPECT_TRUE(messages().empty());
}

TEST_F(PtyTest, a_master_gives_the_name_of_its_slave)
{
    char name[20];
    const int fd = vc_ptym_open(name, sizeof name);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(std::string(name).find("/dev/pts/"), 0u);
    EXPECT_EQ(access(name, F_OK), 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
}

TEST_F(PtyTest, a_slaves_name_is_cut_to_its_buffer)
{
    char name[6];
    const int fd = vc_ptym_open(name, sizeof name);
    ASSERT_GE(fd, 0);
    EXPECT_STREQ(name, "/dev/");
    close(fd);
}

TEST_F(PtyTest, a_slave_that_cannot_be_opened_gives_minus_5)
{
    fault_row("vc_ptys_open", "open", "ENOENT", "-5",
              "vc: vc ptys open %s error, err:%s.\n", "");
    EXPECT_EQ(vc_ptys_open("/nowhere/0"), -5);
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              std::string("vc: vc ptys open /nowhere/0 "
                                          "error, err:") +
                              strerror(ENOENT) + ".\n"}));
}

TEST_F(PtyTest, a_new_masters_settings)
{
    char name[20];
    const int fd = vc_ptym_open(name, sizeof name);
    termios settings = settings_of(fd);
    settings.c_lflag |= ECHO | ECHOE | ECHOK | ECHONL | ICANON;
    settings.c_cflag |= CS8;
    settings.c_cflag &= ~static_cast<tcflag_t>(CREAD | CLOCAL);
    settings.c_iflag |= INPCK | ISTRIP | INLCR | ICRNL;
    settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXANY | IXOFF);
    settings.c_oflag &= ~static_cast<tcflag_t>(ONLCR);
    tcsetattr(fd, TCSANOW, &settings);
    vc_set_noecho(fd);
    settings = settings_of(fd);
    EXPECT_EQ(settings.c_lflag & (ECHO | ECHOE | ECHOK | ECHONL | ICANON), 0u);
    EXPECT_EQ(settings.c_cflag & (CREAD | CLOCAL),
              static_cast<tcflag_t>(CREAD | CLOCAL));
    EXPECT_EQ(settings.c_iflag & (IXON | IXANY | IXOFF),
              static_cast<tcflag_t>(IXON | IXANY | IXOFF));
    EXPECT_EQ(settings.c_iflag & (INPCK | ISTRIP | INLCR | ICRNL), 0u);
    EXPECT_EQ(settings.c_oflag & ONLCR, static_cast<tcflag_t>(ONLCR));
    close(fd);
}

TEST_F(PtyTest, settings_of_what_is_no_terminal_are_reported)
{
    fault_row("vc_set_noecho", "tcgetattr", "ENOTTY", "nothing",
              "vc: set noecho tcgetattr fail, err:%s.\r\n", "");
    vc_set_noecho(inetd_fd_);
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              std::string("vc: set noecho tcgetattr fail, "
                                          "err:") +
                              strerror(ENOTTY) + ".\r\n"}));
}
