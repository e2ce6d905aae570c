// A machine of the test's own, as far as logins see it: users, passwords and
// PAM's modules in directories that nobody else sees.
#pragma once

#include <string>
#include <sys/types.h>

// alice, in the groups staff and ops, with a home; bob, whose home is missing;
// carol, who has no password. The others' is "open sesame". The shell's prompt
// is "NAME> ".
constexpr uid_t LOGIN_ALICE = 4321;
extern const std::string LOGIN_HASH;

// Of login daemons that are root's.
constexpr uid_t LOGIN_NETWORK = 4400;

// Passwords, and a module that notes in /home/noted which sessions are opened
// and closed, for whom and from where.
extern const std::string LOGIN_STACK;

// Puts it in the place of the machine's for this process and what it starts.
// False when only root could.
bool enter_login_machine();

// The fields of alice's password behind the password itself.
void put_users(const std::string &days);
void put_stack(const std::string &modules);

void put_file(const std::string &file, const std::string &text,
              mode_t mode = 0644);
std::string content_of(const std::string &file);
