// The order is PAM's own: rights before the session is opened, as modules that
// mount a home need them, and given back after it was closed.
#include "programs/login/transaction.h"

#include <syslog.h>

#include "programs/login/conversation.h"
#include "programs/login/room.h"

static const pam_conv CONVERSATION = {login_converse, nullptr};

static bool succeeded(transaction *way, int result)
{
    way->result = result;
    return result == PAM_SUCCESS;
}

static bool describe(transaction *way, const kit_session *session)
{
    // The peer of a path is a user, and no host that a module could look up.
    if (session->service->port != 0 &&
        !succeeded(way, pam_set_item(way->handle, PAM_RHOST, session->peer))) {
        return false;
    }
    return succeeded(way, pam_set_item(way->handle, PAM_TTY, session->device));
}

bool transaction_begin(transaction *way, const login_room *room,
                       const kit_session *session, const char *name)
{
    *way = {};
    if (!succeeded(way, pam_start(room->pam_service, name, &CONVERSATION,
                                  &way->handle))) {
        syslog(LOG_AUTHPRIV | LOG_ERR, "PAM does not start: error %d",
               way->result);
        return false;
    }
    if (!describe(way, session)) {
        transaction_end(way);
        return false;
    }
    // Of all modules' wishes the longest counts.
    (void)pam_fail_delay(way->handle, room->delay_us);
    return true;
}

// Nobody comes in over a network without a password. One that has run out is
// replaced before anything else is done.
bool transaction_check(transaction *way)
{
    if (!succeeded(way,
                   pam_authenticate(way->handle, PAM_DISALLOW_NULL_AUTHTOK))) {
        return false;
    }
    if (succeeded(way, pam_acct_mgmt(way->handle, PAM_DISALLOW_NULL_AUTHTOK))) {
        return true;
    }
    return way->result == PAM_NEW_AUTHTOK_REQD &&
           succeeded(way,
                     pam_chauthtok(way->handle, PAM_CHANGE_EXPIRED_AUTHTOK));
}

const char *transaction_user(const transaction *way)
{
    const void *name = nullptr;

    if (pam_get_item(way->handle, PAM_USER, &name) != PAM_SUCCESS ||
        name == nullptr) {
        return "";
    }
    return static_cast<const char *>(name);
}

bool transaction_open(transaction *way)
{
    way->has_rights =
        succeeded(way, pam_setcred(way->handle, PAM_ESTABLISH_CRED));
    way->session_opens =
        way->has_rights && succeeded(way, pam_open_session(way->handle, 0));
    return way->session_opens;
}

char **transaction_environment(const transaction *way)
{
    return pam_getenvlist(way->handle);
}

void transaction_end(transaction *way)
{
    if (way->session_opens) {
        way->result = pam_close_session(way->handle, 0);
    }
    if (way->has_rights) {
        way->result = pam_setcred(way->handle, PAM_DELETE_CRED);
    }
    if (way->handle != nullptr) {
        pam_end(way->handle, way->result);
    }
    *way = {};
}
