// The user who has logged in, and his program.
#pragma once

#include <string>
#include <sys/types.h>

struct login_user {
    std::string name;
    std::string home;
    std::string shell;
    uid_t uid;
    gid_t gid;
};

// False when the machine knows nobody of this name.
bool login_find_user(const char *name, login_user *user);

// Runs a program as the user, his login shell when it is null, with further
// "NAME=value" in its environment, in the foreground of the terminal, and waits
// for it. A hang-up of this process's terminal, and SIGTERM, are passed on;
// what does not end of it within three seconds is killed.
//
// Returns its status as waitpid() gives it, -1 when it could not be started.
int login_run_program(const login_user &user, const char *const *program,
                      char *const *environment);
