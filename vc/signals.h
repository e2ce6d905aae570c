// Signals of the session service.
#pragma once

// Installs the dispositions; that of SIGCHLD only if the children are to be
// reaped here, as a program may reap its own.
void vc_init_sigchld(bool reap_children);

// Reaps every child that has ended and marks its session. Any thread.
void vc_handle_sigchld(int signo);
// Does nothing: its being there makes SIGHUP interrupt a wait.
void vc_handle_sighup(int signo);

// Reaps every child that has ended, without blocking, and tears its session
// down. The loop's thread.
void vc_check_child(void);
