// One user's way through PAM: who he is, whether he may come in now, and what
// is to be done for him before his program runs and after it has ended.
#pragma once

#include <security/pam_appl.h>

#include <ttyline/kit.h>

struct login_room;

struct transaction {
    pam_handle_t *handle;
    int result;         // of the last step, as PAM names it
    bool has_rights;    // to be given back
    bool session_opens; // likewise
};

// For a name that the user has given. False when PAM cannot be used; the reason
// is in the system log then.
bool transaction_begin(transaction *way, const login_room *room,
                       const kit_session *session, const char *name);

// Password or whatever else is asked for, state of the account, a new password
// when one is due. Waits for the user, for servers, and after a failure.
bool transaction_check(transaction *way);

// What PAM calls the user, who may have been given another name by it. Valid
// until the end.
const char *transaction_user(const transaction *way);

// Rights and session, when the groups of the user are this process's already.
// Both need the end, also after a failure.
bool transaction_open(transaction *way);

// Null-terminated "NAME=value", to be given to the user's program; owned by the
// caller, who ends soon.
char **transaction_environment(const transaction *way);

// Gives back what was opened, and forgets the user.
void transaction_end(transaction *way);
