// Name and password are asked for here, in the session's own process: nothing
// that takes time here holds anybody else up. What must not leak is wiped, and
// no core of this process is written.
#include "programs/login/room.h"

#include <csignal>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "programs/login/banner.h"
#include "programs/login/name.h"
#include "programs/login/prompt.h"
#include "programs/login/records.h"
#include "programs/login/transaction.h"
#include "programs/login/user.h"

constexpr int SIGNALLED = 128;
static const char UNKNOWN[] = "UNKNOWN";
static const char INCORRECT[] = "Login incorrect";

// Where the process hangs in a module, or on a terminal that its user has
// stopped, the signal ends it a moment later.
static void limit_time(unsigned seconds)
{
    prompt_limit(seconds);
    signal(SIGALRM, SIG_DFL);
    alarm(seconds + 1);
}

// What nobody is called may be a password that was typed too early: it is
// written nowhere.
static void note_failure(const kit_session *session, const char *name)
{
    const bool known = login_name_acceptable(name) && getpwnam(name) != nullptr;

    (void)kit_login(session, known ? name : UNKNOWN, 0);
    prompt_say(INCORRECT);
}

// Without root nobody else's password can be looked at, and nobody else's
// program run.
static bool may_ask_for(const char *name)
{
    if (!login_name_acceptable(name)) {
        return false;
    }
    const passwd *user = geteuid() != 0 ? getpwnam(name) : nullptr;
    return geteuid() == 0 || (user != nullptr && user->pw_uid == geteuid());
}

static void say_who_can(void)
{
    if (geteuid() != 0) {
        prompt_say("This service does not run as root: "
                   "only its own user can log in.");
    }
}

// One try. The transaction is left open for a user who may come in.
static bool try_to_log_in(const kit_session *session, const login_room *room,
                          const char *name, transaction *way)
{
    if (!may_ask_for(name)) {
        usleep(room->delay_us);
        return false;
    }
    if (!transaction_begin(way, room, session, name)) {
        return false;
    }
    if (transaction_check(way)) {
        return true;
    }
    transaction_end(way);
    return false;
}

static prompt_result ask_for_name(char *name, std::size_t size)
{
    prompt_result result = prompt_result::ANSWERED;

    do {
        result = prompt_ask("login: ", true, name, size);
    } while (result == prompt_result::ANSWERED && name[0] == '\0');
    return result;
}

static bool log_in(const kit_session *session, const login_room *room,
                   transaction *way)
{
    char name[LOGIN_NAME_SIZE];

    for (int tries = 0; tries < room->tries; tries++) {
        if (ask_for_name(name, sizeof name) == prompt_result::ENDED) {
            if (prompt_time_over()) {
                prompt_say("\nNo login in time");
            }
            return false;
        }
        if (try_to_log_in(session, room, name, way)) {
            return true;
        }
        note_failure(session, name);
    }
    prompt_say("Too many tries");
    return false;
}

static int result_of(int status)
{
    if (status < 0) {
        return LOGIN_REFUSED;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status)
                             : SIGNALLED + WTERMSIG(status);
}

static int serve(const kit_session *session, const login_room *room,
                 const login_user &user, transaction *way)
{
    if (room->records) {
        records_begin(session, user.name.c_str());
    }
    (void)kit_login(session, user.name.c_str(), 1);
    banner_show(session, "BANR_EXEC");
    char **environment = transaction_environment(way);
    const int status = login_run_program(user, room->program, environment);
    if (room->records) {
        records_end(session);
    }
    return result_of(status);
}

// The groups come first: modules may add to them.
static bool open_for(const login_user &user, transaction *way)
{
    if (geteuid() == 0 && initgroups(user.name.c_str(), user.gid) != 0) {
        return false;
    }
    return transaction_open(way);
}

// From now on there is something to close at the end, whatever comes: a hang-up
// waits until the user's program can be told of it.
static void hold_signals()
{
    sigset_t ends;

    alarm(0);
    prompt_limit(0);
    for (const int number : {SIGINT, SIGQUIT, SIGTSTP}) {
        signal(number, SIG_IGN);
    }
    sigemptyset(&ends);
    sigaddset(&ends, SIGHUP);
    sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
}

// For a user whom PAM has let in.
static int welcome(const kit_session *session, const login_room *room,
                   transaction *way)
{
    login_user user;
    int result = LOGIN_REFUSED;

    hold_signals();
    if (login_find_user(transaction_user(way), &user) && open_for(user, way)) {
        result = serve(session, room, user, way);
    } else {
        note_failure(session, transaction_user(way));
    }
    transaction_end(way);
    return result;
}

int login_session(const kit_session *session, void *context)
{
    const login_room *room = static_cast<const login_room *>(context);
    transaction way = {};

    prctl(PR_SET_DUMPABLE, 0);
    limit_time(room->seconds);
    banner_show(session, "BANR_LOGIN");
    say_who_can();
    return log_in(session, room, &way) ? welcome(session, room, &way)
                                       : LOGIN_REFUSED;
}
