// ttyline-telnetd: a login daemon that puts every telnet connection on a
// terminal line of its own. The protocol is in telnet.cpp; all that a session
// needs the kit does; here is what is offered.
//
// It asks for no password and encrypts nothing. So it is no daemon for root,
// and offers a shell of its user's only when that is spelled out.
#include <err.h>
#include <unistd.h>

#include <ttyline/vc.h>

#include "programs/shared/offer.h"
#include "programs/telnetd/codec.h"
#include "programs/telnetd/options.h"

// What is offered points into it as long as the process runs.
struct offers {
    daemon_options chosen;
    kit_admission admission = {};
    kit_service service = {};
    kit_daemon daemon = {};
};
static offers g_offers;

static void describe(offers &all)
{
    daemon_options &chosen = all.chosen;
    const char *login_name = choose_program(chosen, nullptr);

    all.admission = admission_of(chosen);
    all.service = service_of(chosen, &all.admission);
    all.service.name = "telnet";
    all.service.protocol = VC_PROTOCOL_TELNET;
    all.service.port = chosen.port;
    all.service.families = chosen.families;
    all.service.program = chosen.program.data();
    all.service.argv0 = login_name;
    all.service.codec = &g_telnet_codec;
    all.daemon.size = sizeof all.daemon;
    all.daemon.name = "ttyline-telnetd";
    all.daemon.version = TTYLINE_VERSION;
    all.daemon.control = chosen.control;
}

int main(int argc, char **argv)
{
    offers &all = g_offers;

    parse_options(argc, argv, all.chosen);
    const std::string why = objection_to(all.chosen, geteuid());
    if (!why.empty()) {
        refuse("ttyline-telnetd", why.c_str());
    }
    describe(all);
    offer(all.service);
    kit_run(&all.daemon);
    errx(1, "%s", kit_error());
}
