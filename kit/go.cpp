#include "kit/go.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kit/audit.h"
#include "kit/error.h"
#include "kit/identity.h"
#include "kit/terminal.h"
#include "kit/text.h"

struct go_message {
    char type[KIT_TYPE_SIZE]; // empty: not told
    uint32_t columns;
    uint32_t rows;
};

struct go_answer {
    uint32_t goes; // 1: the session does
    char reason[BELL_TEXT_SIZE];
};

bool kit_go_open(int ends[2])
{
    return socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0;
}

// Whole records only: another length is none.
static bool receive(int end, void *record, size_t size)
{
    ssize_t got;

    do {
        got = recv(end, record, size, 0);
    } while (got < 0 && errno == EINTR);
    return got == static_cast<ssize_t>(size);
}

static bool send_record(int end, const void *record, size_t size)
{
    return send(end, record, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool kit_go_let(int end, char *reason, size_t size)
{
    const kit_terminal told = kit_terminal_told();
    go_message message = {};
    go_answer answer = {};

    (void)snprintf(message.type, sizeof message.type, "%s",
                   told.type != nullptr ? told.type : "");
    message.columns = told.columns;
    message.rows = told.rows;
    reason[0] = '\0';
    if (!send_record(end, &message, sizeof message) ||
        !receive(end, &answer, sizeof answer)) {
        return true;
    }
    (void)snprintf(reason, size, "%.*s",
                   static_cast<int>(sizeof answer.reason - 1), answer.reason);
    return answer.goes != 0;
}

// Whoever is to free a full disk, or mend a broken one, has to come in first.
static bool go_without_identity(const kit_entry *entry, int error)
{
    char reason[3 * BELL_TEXT_SIZE];

    if (error != ENOSPC && error != EDQUOT && error != EROFS && error != EIO) {
        return false;
    }
    kit_audit("no-identity line=%d id=%s reason=%s", entry->session.line,
              entry->id, kit_word(reason, sizeof reason, kit_error()));
    return true;
}

bool kit_go_await(int end, const kit_entry *entry)
{
    go_message message;
    go_answer answer = {1, ""};

    if (!receive(end, &message, sizeof message)) {
        return false;
    }
    message.type[sizeof message.type - 1] = '\0';
    const kit_terminal told = {message.type[0] != '\0' ? message.type : nullptr,
                               message.columns, message.rows};
    kit_terminal_note(&told);
    if (kit_identity_store(entry, getpid()) != 0) {
        answer.goes = go_without_identity(entry, errno) ? 1 : 0;
        (void)snprintf(answer.reason, sizeof answer.reason, "%s", kit_error());
    }
    return send_record(end, &answer, sizeof answer) && answer.goes != 0;
}
