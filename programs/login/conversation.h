// What PAM's modules ask and say, on the session's terminal.
#pragma once

#include <security/pam_appl.h>

// A conversation function for struct pam_conv; its context is not used. Waits
// for the user. Answers are the caller's, to be wiped and freed, as PAM wants.
int login_converse(int count, const pam_message **messages,
                   pam_response **answers, void *unused);
