// What programs on a line tell the line administration daemon.
#include "tty/admin.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include <ttyline/tty.h>

#include "common/runtime_dir.h"
#include "tty/admin_channel.h"
#include "tty/lock.h"

// One above the last line: no line is excepted.
constexpr unsigned int EXCEPT_LINE_MAX = TTY_LINES;
constexpr unsigned int SERVICE_PATH_SIZE = 100;
constexpr unsigned int MASK_TEXT_SIZE = 128;
// Enabled unless the device says otherwise.
constexpr unsigned int DEFAULT_SERVICE = 4;

static const char SERVICE_FILE[] = "/mng/tty/.service_cur.txt";

struct setting {
    const char *name;
    uint16_t type;
};

static const setting settings[] = {
    {"SPEED", TTYLIB_TLV_SPEED},
    {"SESSION_TIMEOUT", TTYLIB_TLV_SESSION_TIMEOUT},
    {"EXEC_TIMEOUT", TTYLIB_TLV_EXEC_TIMEOUT},
};

// 1 from a hold that got as far as the send to a release that did. Tested
// before the lock is taken: two threads may both pass, and both holds are
// sent then.
static std::atomic<unsigned char> g_tty_locked_line{0};

int tty_loginsucc_update(unsigned int ttyno)
{
    admin_request request = {};

    if (!admin_enter()) {
        return -1;
    }
    admin_append(&request, TTYLIB_TLV_TTYNO, ttyno);
    admin_append(&request, TTYLIB_TLV_LOGSUCC, 1);
    const int result = admin_send(&request);
    ttylib_leave();
    return result;
}

static int report_success(unsigned int ttyno)
{
    // Stored before it is told: the daemon may look the key up as soon as it
    // hears of the login.
    if (tty_setenv(ttyno, "LOGSUCC", "1") == -1) {
        tty_debug_msg(0, "ttylib: %s set tty logsucc fail, 1.\n",
                      "tty_login_info_audit");
        return -1;
    }
    if (tty_loginsucc_update(ttyno) == -1) {
        tty_debug_msg(0, "ttylib: %s set tty logsucc fail\n",
                      "tty_login_info_audit");
        return -1;
    }
    return 0;
}

int tty_login_info_audit(unsigned int ttyno, bool success)
{
    if (ttyno >= TTY_LINES) {
        tty_debug_msg(0, "ttylib: %s  param err, ttyno is %d\n",
                      "tty_login_info_audit", static_cast<int>(ttyno));
        return -1;
    }
    if (success) {
        return report_success(ttyno);
    }
    if (tty_setenv(ttyno, "LOGSUCC", "0") == -1) {
        tty_debug_msg(0, "ttylib: %s set tty logsucc fail, 0.\n",
                      "tty_login_info_audit");
        return -1;
    }
    return 0;
}

static const setting *find_setting(const char *name)
{
    for (const setting &known : settings) {
        if (strcmp(name, known.name) == 0) {
            return &known;
        }
    }
    return nullptr;
}

int tty_cfg_update(unsigned int ttyno, const char *name, unsigned int value)
{
    admin_request request = {};
    int result = -1;

    if (!admin_enter()) {
        return -1;
    }
    admin_append(&request, TTYLIB_TLV_TTYNO, ttyno);
    const setting *known = find_setting(name);
    if (known != nullptr) {
        // Behind the line's number, which says what the items after it are
        // about.
        admin_append(&request, known->type, value);
        result = admin_send(&request);
    } else {
        tty_debug_msg(0, "ttylib:doesn't support %s cfg now\n", name);
    }
    ttylib_leave();
    return result;
}

// Before the lock and the connection: a request that cannot be granted must not
// wait for either.
static bool hold_permitted(unsigned int except_ttyno, unsigned int hold_time)
{
    if (except_ttyno > EXCEPT_LINE_MAX) {
        tty_debug_msg(0, "ttylib: param err, except_ttyno is %d\n",
                      static_cast<int>(except_ttyno));
        return false;
    }
    if (hold_time > TTY_HOLD_MAX) {
        tty_debug_msg(0, "ttylib: param err, hold_time is %d\n",
                      static_cast<int>(hold_time));
        return false;
    }
    if (g_tty_locked_line.load() != 0) {
        tty_debug_msg(0, "ttylib: locked request has sent.\n");
        return false;
    }
    return true;
}

int tty_hold_line(unsigned int except_ttyno, unsigned int hold_time)
{
    admin_request request = {};

    if (!hold_permitted(except_ttyno, hold_time) || !admin_enter()) {
        return -1;
    }
    admin_append(&request, TTYLIB_TLV_TTYNO, except_ttyno);
    admin_append(&request, TTYLIB_TLV_HOLD_TIME, hold_time);
    const int result = admin_send(&request);
    // Also when it failed: part of it may have arrived.
    g_tty_locked_line.store(1);
    ttylib_leave();
    return result;
}

int tty_release_line(void)
{
    admin_request request = {};

    if (!admin_enter()) {
        return -1;
    }
    admin_append(&request, TTYLIB_TLV_RELEASE, 0);
    const int result = admin_send(&request);
    g_tty_locked_line.store(0);
    ttylib_leave();
    return result;
}

// An empty or unreadable file enables nothing. White space before the number
// may be of any length; what comes behind it may be anything.
static unsigned int read_mask(int fd)
{
    char text[MASK_TEXT_SIZE] = {};
    size_t used = 0;
    ssize_t got;

    while (used < sizeof text - 1 &&
           (got = read(fd, text + used, sizeof text - 1 - used)) > 0) {
        used += static_cast<size_t>(got);
        const size_t blanks = strspn(text, " \t\n\v\f\r");
        used -= blanks;
        memmove(text, text + blanks, used);
        memset(text + used, 0, sizeof text - used);
    }
    close(fd);
    return static_cast<unsigned int>(strtoull(text, nullptr, 10));
}

int tty_get_service(unsigned int service)
{
    char path[SERVICE_PATH_SIZE];

    if (tty_make_path(path, sizeof path, SERVICE_FILE) == nullptr) {
        tty_debug_msg(0, "ttylib:%s make path %s fail\r\n", "tty_get_service",
                      SERVICE_FILE);
        return 0;
    }
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        tty_debug_msg(0, "ttylib: open file %s fail errno:%d, %s\n", path,
                      errno, strerror(errno));
        return errno == ENOENT && service == DEFAULT_SERVICE ? 1 : 0;
    }
    // Of a number that is no bit of the mask the last five bits count, as a
    // machine's shift takes them.
    return static_cast<int>(read_mask(fd) >> (service % 32) & 1);
}
