// Signals of the session service.
#pragma once

// Installs the dispositions. protocol is that of the first registration: an
// in-path program reaps its own children, so 10 leaves SIGCHLD as it is.
void vc_init_sigchld(int protocol);

// Reaps every child that has ended and marks its session. Any thread.
void vc_handle_sigchld(int signo);
// Does nothing: its being there makes SIGHUP interrupt a wait.
void vc_handle_sighup(int signo);

// Reaps every child that has ended, without blocking, and tears its session
// down. The loop's thread.
void vc_check_child(void);
