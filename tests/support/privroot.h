// A root directory of the test's own, for what lies under absolute paths.
#pragma once

#include <string>

#include "tests/support/runtime.h"

namespace support
{

// Moves the process into a new mount namespace whose root holds the machine's
// /usr, /etc, /proc and the like, the working directory, an empty /tmp and
// otherwise nothing; /dev holds only null, zero, random, urandom, tty, and
// ptmx and pts of its own. There is no way back. Returns what went wrong,
// empty when nothing did. A process that is not root needs user namespaces,
// and one thread only.
std::string enter_private_root();

// Puts content in place of an existing file of the private root that cannot
// be written, such as /proc/cmdline.
void put_over(const std::string &path, const std::string &content);

// A test inside a private root, TMPDIR unset, umask 022. That it cannot be
// entered is a failure of the test.
class private_root_test : public nothing_left
{
  protected:
    void SetUp() override;

    void make_directories(const std::string &path) const;
    std::vector<std::string> tty_log() const;
};

} // namespace support
