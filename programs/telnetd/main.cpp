// ttyline-telnetd: a login daemon that puts every telnet connection on a
// terminal line of its own. The protocol is in telnet.cpp; all that a session
// needs the kit does; here is what is offered.
//
// As root it asks for name and password in the session's own process, which
// keeps root's rights; the process that reads what the network sends has none.
#include <err.h>
#include <unistd.h>

#include <ttyline/vc.h>

#include "programs/login/confine.h"
#include "programs/login/room.h"
#include "programs/login/waiting.h"
#include "programs/shared/offer.h"
#include "programs/telnetd/codec.h"
#include "programs/telnetd/options.h"
#include "programs/telnetd/terminals.h"

// What has been opened for a user is closed within it, a server's answer
// included.
constexpr uint32_t HANGUP_MS = 15000;
constexpr int EXIT_REFUSED = 2;

// What is offered points into it as long as the process runs.
struct offers {
    telnetd_options chosen;
    login_room room = {};
    confinement keepers = {};
    kit_admission admission = {};
    kit_service service = {};
    kit_daemon daemon = {};
};
static offers g_offers;

static int confine(const kit_session *, void *)
{
    return confine_process(&g_offers.keepers) ? 0 : -1;
}

static void describe_login(offers &all)
{
    telnetd_options &chosen = all.chosen;

    all.room.pam_service = "ttyline";
    all.room.program = kit_list(chosen.program);
    all.room.records = chosen.records;
    all.room.tries = LOGIN_TRIES;
    all.room.seconds = LOGIN_SECONDS;
    all.room.delay_us = LOGIN_DELAY_US;
    all.service.function = login_session;
    all.service.context = &all.room;
    all.service.asks_user = 1;
    all.service.admit = waiting_admit;
    all.service.hangup_ms = HANGUP_MS;
}

static void describe_program(offers &all)
{
    all.service.argv0 = choose_program(all.chosen, nullptr);
    all.service.program = all.chosen.program.data();
}

static void describe(offers &all)
{
    telnetd_options &chosen = all.chosen;

    all.admission = admission_of(chosen);
    all.service = service_of(chosen, &all.admission);
    all.service.name = "telnet";
    all.service.protocol = VC_PROTOCOL_TELNET;
    all.service.port = chosen.port;
    all.service.families = chosen.families;
    all.service.codec = &g_telnet_codec;
    all.service.confine = confine;
    if (chosen.no_authentication) {
        describe_program(all);
    } else {
        describe_login(all);
    }
    all.daemon.size = sizeof all.daemon;
    all.daemon.name = "ttyline-telnetd";
    all.daemon.version = TTYLINE_VERSION;
    all.daemon.control = chosen.control;
}

// What keepers can no longer look at or make.
static void prepare(offers &all)
{
    terminals_load();
    if (kit_runtime_check() != 0) {
        errx(EXIT_REFUSED, "%s", kit_error());
    }
    const std::string why =
        confine_prepare(all.chosen.network_user, &all.keepers);
    if (!why.empty()) {
        errx(EXIT_REFUSED, "%s", why.c_str());
    }
}

int main(int argc, char **argv)
{
    offers &all = g_offers;

    parse_options(argc, argv, all.chosen);
    const std::string why = objection_to(all.chosen, geteuid());
    if (!why.empty()) {
        refuse("ttyline-telnetd", why.c_str());
    }
    prepare(all);
    describe(all);
    offer(all.service);
    kit_run(&all.daemon);
    errx(1, "%s", kit_error());
}
