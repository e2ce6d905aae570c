// consoled: a login daemon that puts every connection on a terminal line of its
// own, with a shell, login(1) or another program behind it. Connections come in
// on a TCP port and on a unix path; another unix path may lead to the line
// console, rl-con. All that a session needs the kit does; here is what is
// offered.
//
// It asks for no password itself and encrypts nothing.
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "programs/consoled/options.h"
#include "programs/shared/offer.h"

constexpr uint32_t PROTOCOL_PORT = 6;
constexpr uint32_t PROTOCOL_PATH = 7;
// With rules of who may come in, the path itself is open to everybody.
constexpr uint32_t OPEN_PATH_MODE = 0666;
constexpr int CANNOT_RUN = 127;
static const char LOGIN_PROGRAM[] = "/bin/login";

// What is offered points into it as long as the process runs.
struct offers {
    options chosen;
    std::string search; // "PATH=" and where rl-con is looked for
    std::vector<const char *> console_environment;
    kit_admission admission = {};
    kit_service on_port = {};
    kit_service on_path = {};
    kit_service console = {};
    kit_daemon daemon = {};
};
static offers g_offers;

// In the session's own process, on its terminal, as is run_console(). The name
// of a peer on a path is none of a host.
static int run_login(const kit_session *session, void *)
{
    if (session->service->port != 0) {
        execl(LOGIN_PROGRAM, "login", "-h", session->peer, nullptr);
    } else {
        execl(LOGIN_PROGRAM, "login", nullptr);
    }
    warn("cannot run %s", LOGIN_PROGRAM);
    return CANNOT_RUN;
}

static int run_console(const kit_session *session, void *)
{
    const std::string line = "-n " + std::to_string(session->line);
    const std::string device = std::string("-t ") + session->device;
    const std::string peer = std::string("-i ") + session->label;

    execlp("rl-con", "rl-con", line.c_str(), device.c_str(), peer.c_str(),
           nullptr);
    warn("cannot run rl-con");
    return CANNOT_RUN;
}

// The console is found where this daemon finds programs.
static const char *const *console_environment(offers &all)
{
    const char *path = getenv("PATH");

    all.search = std::string("PATH=") + (path != nullptr ? path : "/bin");
    all.console_environment = {all.search.c_str()};
    for (const char *entry : all.chosen.environment) {
        if (entry != nullptr) {
            all.console_environment.push_back(entry);
        }
    }
    all.console_environment.push_back(nullptr);
    return all.console_environment.data();
}

static void describe_admission(offers &all)
{
    options &chosen = all.chosen;

    all.admission = admission_of(chosen);
    all.admission.users = kit_list(chosen.users);
    all.admission.groups = kit_list(chosen.groups);
}

// What the sessions of port and path run.
static void describe_program(offers &all)
{
    const char *login_name = choose_program(all.chosen, all.chosen.user);

    for (kit_service *service : {&all.on_port, &all.on_path}) {
        if (all.chosen.login) {
            service->function = run_login;
            // Only login(1) knows, and does not tell.
            service->asks_user = 1;
        } else {
            service->program = all.chosen.program.data();
            service->argv0 = login_name;
            service->user = all.chosen.user;
        }
    }
}

static void describe(offers &all)
{
    options &chosen = all.chosen;

    describe_admission(all);
    const kit_service common = service_of(chosen, &all.admission);
    all.on_port = all.on_path = all.console = common;

    all.on_port.name = "port";
    all.on_port.protocol = PROTOCOL_PORT;
    all.on_port.port = chosen.port;
    all.on_port.families = chosen.families;
    all.on_path.name = "path";
    all.on_path.protocol = PROTOCOL_PATH;
    all.on_path.path = chosen.path;
    describe_program(all);
    all.console.name = "line-console";
    all.console.protocol = PROTOCOL_PATH;
    all.console.path = chosen.inpath;
    all.console.function = run_console;
    all.console.environment = console_environment(all);
}

static void describe_daemon(offers &all)
{
    all.daemon.size = sizeof all.daemon;
    all.daemon.name = "consoled";
    all.daemon.version = TTYLINE_VERSION;
    all.daemon.control = all.chosen.control;
    if (!all.chosen.users.empty() || !all.chosen.groups.empty()) {
        all.daemon.path_mode = OPEN_PATH_MODE;
    }
}

int main(int argc, char **argv)
{
    offers &all = g_offers;
    const options &chosen = all.chosen;

    parse_options(argc, argv, all.chosen);
    const std::string why = objection_to(chosen, geteuid());
    if (!why.empty()) {
        refuse("consoled", why.c_str());
    }
    describe(all);
    describe_daemon(all);
    if (chosen.port != 0) {
        offer(all.on_port);
    }
    if (chosen.path != nullptr) {
        offer(all.on_path);
    }
    if (chosen.inpath != nullptr) {
        offer(all.console);
    }
    kit_run(&all.daemon);
    errx(1, "%s", kit_error());
}
