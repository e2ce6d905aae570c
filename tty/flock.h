// Record locks on whole files.
#pragma once

// Issues one locking call on the whole of fd: command F_SETLK or F_SETLKW,
// type F_WRLCK or F_UNLCK. Returns what fcntl() returns.
int tty_flock_reg(int fd, int command, int type);
