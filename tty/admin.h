// The part of a successful login's report that is a request of its own.
#pragma once

// Tells the daemon that the line's user has logged in; any number is passed
// on. Returns 0 or -1.
int tty_loginsucc_update(unsigned int ttyno);
