#include "tests/system/programs/login_machine.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

const std::string LOGIN_HASH =
    "$6$ttylinesalt$jTojeyJ47/8ZGVu0kfS.zH5L9fQKVIG54etNBO0e0."
    "zVENE/vxLLHzhBdn1PXSAKvBI1HY0xEmgzgxO73BeNS/";

const std::string LOGIN_STACK = "auth required pam_unix.so\n"
                                "account required pam_unix.so\n"
                                "password required pam_unix.so\n"
                                "session required pam_exec.so /home/note\n";

static const char USUAL_DAYS[] = "20000:0:99999:7:::";

void put_file(const std::string &file, const std::string &text, mode_t mode)
{
    fs::create_directories(fs::path(file).parent_path());
    std::ofstream(file) << text;
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
}

std::string content_of(const std::string &file)
{
    std::stringstream text;

    text << std::ifstream(file).rdbuf();
    return text.str();
}

void put_stack(const std::string &modules)
{
    put_file("/etc/pam.d/ttyline", modules);
}

void put_users(const std::string &days)
{
    // The group of the helper that looks up a user's own password.
    struct stat helper = {};

    put_file("/etc/passwd", "root:x:0:0::/root:/bin/sh\n"
                            "ttyline-net:x:4400:4400::/:/usr/sbin/nologin\n"
                            "alice:x:4321:4321::/home/alice:/home/shell\n"
                            "bob:x:4322:4321::/nowhere:/home/shell\n"
                            "carol:x:4323:4321::/home:/home/shell\n");
    put_file("/etc/shadow",
             "root:*:20000::::::\nalice:" + LOGIN_HASH + ":" + days +
                 "\nbob:" + LOGIN_HASH + ":20000::::::\ncarol::20000::::::\n",
             0640);
    ASSERT_EQ(stat("/sbin/unix_chkpwd", &helper), 0);
    ASSERT_EQ(chown("/etc/shadow", 0, helper.st_gid), 0);
    put_file("/etc/group",
             "root:x:0:\ntty:x:5:\nstaff:x:4321:\nops:x:99:alice\n");
}

static void put_homes()
{
    put_file("/home/shell", "#!/bin/sh\nPS1=\"$USER> \" exec /bin/sh -i\n",
             0755);
    fs::create_directories("/home/alice");
    ASSERT_EQ(chown("/home/alice", LOGIN_ALICE, LOGIN_ALICE), 0);
    put_file("/home/note",
             "#!/bin/sh\n"
             "echo \"$PAM_TYPE $PAM_USER $PAM_RHOST\" >>/home/noted\n",
             0755);
    put_file("/home/noted", "", 0666);
}

bool enter_login_machine()
{
    if (getuid() != 0 || unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return false;
    }
    for (const char *directory : {"/etc", "/home", "/run", "/var/log"}) {
        if (mount("none", directory, "tmpfs", 0, "mode=0755") != 0) {
            return false;
        }
    }
    put_users(USUAL_DAYS);
    put_homes();
    put_stack(LOGIN_STACK);
    return true;
}
