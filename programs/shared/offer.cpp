#include "programs/shared/offer.h"

#include <cstdlib>
#include <err.h>
#include <paths.h>
#include <pwd.h>
#include <unistd.h>

constexpr uint32_t MS_PER_SECOND = 1000;
constexpr int EXIT_REFUSED = 2;

const char *const *kit_list(std::vector<const char *> &list)
{
    if (list.empty()) {
        return nullptr;
    }
    list.push_back(nullptr);
    return list.data();
}

static std::string shell_of(const char *user)
{
    const char *own = getenv("SHELL");
    const passwd *found = user != nullptr ? getpwnam(user) : getpwuid(getuid());

    if (user == nullptr && own != nullptr && *own != '\0') {
        return own;
    }
    return found != nullptr && found->pw_shell[0] != '\0' ? found->pw_shell
                                                          : _PATH_BSHELL;
}

// A shell is a login shell when its own name begins with a dash.
const char *choose_program(daemon_options &chosen, const char *user)
{
    const bool is_shell = chosen.program.empty();

    if (is_shell) {
        chosen.shell = shell_of(user);
        chosen.login_name =
            "-" + chosen.shell.substr(chosen.shell.rfind('/') + 1);
        chosen.program.push_back(chosen.shell.c_str());
    }
    chosen.program.push_back(nullptr);
    return is_shell ? chosen.login_name.c_str() : nullptr;
}

kit_admission admission_of(daemon_options &chosen)
{
    kit_admission rules = {};

    rules.size = sizeof rules;
    rules.peers = chosen.any_peer ? nullptr : kit_list(chosen.peers);
    rules.most_sessions = chosen.most_sessions;
    rules.most_per_peer = chosen.most_per_peer;
    return rules;
}

kit_service service_of(daemon_options &chosen, const kit_admission *admission)
{
    kit_service service = {};

    service.size = sizeof service;
    service.term = chosen.term;
    service.environment = kit_list(chosen.environment);
    service.admission = admission;
    service.idle_ms = chosen.idle_seconds * MS_PER_SECOND;
    return service;
}

void offer(const kit_service &service)
{
    if (kit_offer(&service) != 0) {
        errx(EXIT_REFUSED, "%s", kit_error());
    }
}
