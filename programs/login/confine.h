// What is left to a process that reads what a network sends: its descriptors,
// and the few system calls that move bytes between them.
#pragma once

#include <string>
#include <sys/types.h>

struct confinement {
    std::string root; // an empty directory that nobody can write to
    uid_t uid;
    gid_t gid;
    bool changes_user; // only root can, and must
};

// In the daemon, before its first session: makes the root in the runtime
// directory, whose rights have been checked, and looks the user up, whom only a
// daemon of root's needs. Returns what is missing, empty when nothing is.
std::string confine_prepare(const char *user, confinement *prepared);

// In a keeper: another user without groups, the empty directory as its root, no
// new rights, no files, no processes, and a filter of its system calls that
// ends it when it makes another. It ends with its daemon all the same. False
// with the reason in the system log; the process must not go on then.
bool confine_process(const confinement *prepared);
