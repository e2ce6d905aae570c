#include "programs/login/records.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <ctime>
#include <unistd.h>
#include <utmp.h>
#include <utmpx.h>

// These fields need not have an end of their own.
template <std::size_t SIZE>
static void put(char (&field)[SIZE], const char *text)
{
    memcpy(field, text, std::min(strlen(text), SIZE));
}

static void put_address(utmpx *record, const char *peer)
{
    if (inet_pton(AF_INET, peer, record->ut_addr_v6) != 1) {
        (void)inet_pton(AF_INET6, peer, record->ut_addr_v6);
    }
}

// The same entry at begin and end: its id is the tail of the terminal's name.
static utmpx entry_of(const kit_session *session, short type)
{
    static const char DEVICES[] = "/dev/";
    utmpx record = {};
    const char *line = session->device;

    if (strncmp(line, DEVICES, strlen(DEVICES)) == 0) {
        line += strlen(DEVICES);
    }
    const std::size_t length = strlen(line);
    record.ut_type = type;
    record.ut_pid = getpid();
    put(record.ut_line, line);
    put(record.ut_id, line + (length - std::min(length, sizeof record.ut_id)));
    record.ut_tv.tv_sec =
        static_cast<decltype(record.ut_tv.tv_sec)>(time(nullptr));
    return record;
}

static void write_record(const utmpx &record)
{
    setutxent();
    pututxline(&record);
    endutxent();
    updwtmpx(_PATH_WTMP, &record);
}

void records_begin(const kit_session *session, const char *user)
{
    utmpx record = entry_of(session, USER_PROCESS);

    record.ut_session = getsid(0);
    put(record.ut_user, user);
    put(record.ut_host, session->peer);
    if (session->service->port != 0) {
        put_address(&record, session->peer);
    }
    write_record(record);
}

void records_end(const kit_session *session)
{
    write_record(entry_of(session, DEAD_PROCESS));
}
