// consoled: a login daemon that puts every connection on a terminal line of its
// own, with a shell (or another program) behind it. Connections come in on a
// TCP port and on a unix path; another unix path may lead to the line console,
// rl-con. All that a session needs the kit does; here is what is offered.
//
// It asks for no password and encrypts nothing: whoever gets in is the user
// whose shell it runs.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <getopt.h>
#include <paths.h>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <ttyline/kit.h>
#include <ttyline/vc.h>

constexpr uint32_t PROTOCOL_PORT = 6;
constexpr uint32_t PROTOCOL_PATH = 7;
constexpr long MOST_SESSIONS = TTY_LINES;
// With rules of who may come in, the path itself is open to everybody.
constexpr uint32_t OPEN_PATH_MODE = 0666;

struct options {
    int port = 0;
    const char *path = nullptr;
    const char *inpath = nullptr;
    uint32_t families = KIT_IPV4 | KIT_IPV6;
    const char *user = nullptr;
    const char *term = "vt100";
    std::vector<const char *> peers;
    std::vector<const char *> users;
    std::vector<const char *> groups;
    std::vector<const char *> environment;
    std::vector<const char *> program;
    std::string login_name; // of a shell, "-sh"
    std::string search;     // "PATH=" and where rl-con is looked for
    std::vector<const char *> console_environment;
    kit_admission admission = {};
    kit_service on_port = {};
    kit_service on_path = {};
    kit_service console = {};
    kit_daemon daemon = {};
};

// What is offered points into it as long as the process runs.
static options g_options;

static const char HELP[] =
    R"(usage: consoled [options] [program [argument ...]]
  --port N               offer TCP port N (1 to 65535)
  --path PATH            offer a unix path, at most 63 characters
  --inpath PATH          offer the line console on a unix path, at most 63
                         characters; runs rl-con, found through PATH
  --control PATH         take commands on a unix path that only this user
                         can open; send it 'help'
  --allow ADDR[/BITS]    let only these peers in on the port; repeatable
  --allow-user USER      let only these users in on the paths; repeatable
  --allow-group GROUP    and the members of these groups; repeatable
  --sessions N           at most so many sessions on each
  --sessions-per-peer N  at most so many of one address or user
  --no-ipv4              offer the port over IPv6 only
  --no-ipv6              offer the port over IPv4 only
  --user NAME            run the program as this user
  --setenv NAME=VALUE    put this into the sessions' environment; repeatable
  --term TERM            terminal type of the sessions (vt100)
  --version              print the version
  --help                 print this
At least one of --port, --path and --inpath is needed. Without a program each
session is a login shell. There is no password: whoever gets in is the user
who runs consoled, or that of --user.
)";

[[noreturn]] static void refuse(const char *text, const char *reason)
{
    errx(2, "%s: %s (try --help)", text, reason);
}

static long parse_number(const char *text, long highest, const char *what)
{
    char *end = nullptr;
    const long number = strtol(text, &end, 10);

    if (end == text || *end != '\0' || number < 1 || number > highest) {
        refuse(text, what);
    }
    return number;
}

static const char *parse_path(const char *text)
{
    if (*text == '\0' || strlen(text) >= VC_PATH_SIZE) {
        refuse(text, "not a path of 1 to 63 characters");
    }
    return text;
}

static const char *parse_variable(const char *text)
{
    const char *equals = strchr(text, '=');

    if (equals == nullptr || equals == text) {
        refuse(text, "not NAME=VALUE");
    }
    return text;
}

static void parse_offer(int letter, options &chosen)
{
    switch (letter) {
    case 'p':
        chosen.port =
            static_cast<int>(parse_number(optarg, 65535, "not a port"));
        break;
    case 'u':
        chosen.path = parse_path(optarg);
        break;
    case 'i':
        if (chosen.inpath != nullptr) {
            refuse(optarg, "only one --inpath can be offered");
        }
        chosen.inpath = parse_path(optarg);
        break;
    case 'c':
        chosen.daemon.control = optarg;
        break;
    case '4':
        chosen.families &= ~KIT_IPV4;
        break;
    case '6':
        chosen.families &= ~KIT_IPV6;
        break;
    default:
        fputs(HELP, stderr);
        exit(2);
    }
}

static void parse_session(int letter, options &chosen)
{
    switch (letter) {
    case 'a':
        chosen.peers.push_back(optarg);
        break;
    case 'U':
        chosen.users.push_back(optarg);
        break;
    case 'G':
        chosen.groups.push_back(optarg);
        break;
    case 's':
        chosen.admission.most_sessions = static_cast<uint32_t>(
            parse_number(optarg, MOST_SESSIONS, "not a number of sessions"));
        break;
    case 'S':
        chosen.admission.most_per_peer = static_cast<uint32_t>(
            parse_number(optarg, MOST_SESSIONS, "not a number of sessions"));
        break;
    case 'r':
        chosen.user = optarg;
        break;
    case 'e':
        chosen.environment.push_back(parse_variable(optarg));
        break;
    case 't':
        chosen.term = optarg;
        break;
    default:
        parse_offer(letter, chosen);
    }
}

static void parse_options(int argc, char **argv, options &chosen)
{
    static const option KNOWN[] = {
        {"port", required_argument, nullptr, 'p'},
        {"path", required_argument, nullptr, 'u'},
        {"inpath", required_argument, nullptr, 'i'},
        {"control", required_argument, nullptr, 'c'},
        {"allow", required_argument, nullptr, 'a'},
        {"allow-user", required_argument, nullptr, 'U'},
        {"allow-group", required_argument, nullptr, 'G'},
        {"sessions", required_argument, nullptr, 's'},
        {"sessions-per-peer", required_argument, nullptr, 'S'},
        {"no-ipv4", no_argument, nullptr, '4'},
        {"no-ipv6", no_argument, nullptr, '6'},
        {"user", required_argument, nullptr, 'r'},
        {"setenv", required_argument, nullptr, 'e'},
        {"term", required_argument, nullptr, 't'},
        {"version", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0}};
    int letter;

    // The plus: what follows the program's name are its own options.
    while ((letter = getopt_long(argc, argv, "+", KNOWN, nullptr)) != -1) {
        if (letter == 'h') {
            fputs(HELP, stdout);
            exit(0);
        }
        if (letter == 'v') {
            printf("consoled (ttyline) %s\n", TTYLINE_VERSION);
            exit(0);
        }
        parse_session(letter, chosen);
    }
    chosen.program.assign(argv + optind, argv + argc);
}

static void check_options(const char *self, const options &chosen)
{
    if (chosen.port == 0 && chosen.path == nullptr &&
        chosen.inpath == nullptr) {
        refuse(self, "none of --port, --path and --inpath given");
    }
    if (chosen.port != 0 && chosen.families == 0) {
        refuse(self, "--no-ipv4 and --no-ipv6 leave --port nothing");
    }
}

static const char *shell_of(const options &chosen)
{
    const char *own = getenv("SHELL");
    const passwd *user =
        chosen.user != nullptr ? getpwnam(chosen.user) : getpwuid(getuid());

    if (chosen.user == nullptr && own != nullptr && *own != '\0') {
        return own;
    }
    if (chosen.user != nullptr && user == nullptr) {
        refuse(chosen.user, "no such user");
    }
    return user != nullptr && user->pw_shell[0] != '\0' ? user->pw_shell
                                                        : _PATH_BSHELL;
}

// A shell is a login shell when its own name begins with a dash.
static const char *choose_program(options &chosen)
{
    if (!chosen.program.empty()) {
        return nullptr;
    }
    const std::string shell = shell_of(chosen);
    chosen.program.push_back(strdup(shell.c_str()));
    chosen.login_name = "-" + shell.substr(shell.rfind('/') + 1);
    return chosen.login_name.c_str();
}

// A list ends with a null pointer; one that nobody has given is absent.
static const char *const *list_of(std::vector<const char *> &list)
{
    if (list.empty()) {
        return nullptr;
    }
    list.push_back(nullptr);
    return list.data();
}

// In the session's own process, on its terminal.
static int run_console(const kit_session *session, void *)
{
    const std::string line = "-n " + std::to_string(session->line);
    const std::string device = std::string("-t ") + session->device;
    const std::string peer = std::string("-i ") + session->label;

    execlp("rl-con", "rl-con", line.c_str(), device.c_str(), peer.c_str(),
           nullptr);
    warn("cannot run rl-con");
    return 127;
}

static void offer(const kit_service &service)
{
    if (kit_offer(&service) != 0) {
        errx(2, "%s", kit_error());
    }
}

// The console is found where this daemon finds programs.
static const char *const *console_environment(options &chosen)
{
    const char *path = getenv("PATH");

    chosen.search = std::string("PATH=") + (path != nullptr ? path : "/bin");
    chosen.console_environment = {chosen.search.c_str()};
    for (const char *entry : chosen.environment) {
        if (entry != nullptr) {
            chosen.console_environment.push_back(entry);
        }
    }
    chosen.console_environment.push_back(nullptr);
    return chosen.console_environment.data();
}

static void describe(options &chosen)
{
    const char *login_name = choose_program(chosen);

    chosen.program.push_back(nullptr);
    chosen.admission.size = sizeof chosen.admission;
    chosen.admission.peers = list_of(chosen.peers);
    chosen.admission.users = list_of(chosen.users);
    chosen.admission.groups = list_of(chosen.groups);
    kit_service common = {};
    common.size = sizeof common;
    common.term = chosen.term;
    common.environment = list_of(chosen.environment);
    common.admission = &chosen.admission;
    chosen.on_port = chosen.on_path = chosen.console = common;

    chosen.on_port.name = "port";
    chosen.on_port.protocol = PROTOCOL_PORT;
    chosen.on_port.port = chosen.port;
    chosen.on_port.families = chosen.families;
    chosen.on_path.name = "path";
    chosen.on_path.protocol = PROTOCOL_PATH;
    chosen.on_path.path = chosen.path;
    for (kit_service *service : {&chosen.on_port, &chosen.on_path}) {
        service->program = chosen.program.data();
        service->argv0 = login_name;
        service->user = chosen.user;
    }
    chosen.console.name = "line-console";
    chosen.console.protocol = PROTOCOL_PATH;
    chosen.console.path = chosen.inpath;
    chosen.console.function = run_console;
    chosen.console.environment = console_environment(chosen);
}

int main(int argc, char **argv)
{
    options &chosen = g_options;

    parse_options(argc, argv, chosen);
    check_options(argv[0], chosen);
    describe(chosen);
    if (chosen.port != 0) {
        offer(chosen.on_port);
    }
    if (chosen.path != nullptr) {
        offer(chosen.on_path);
    }
    if (chosen.inpath != nullptr) {
        offer(chosen.console);
    }
    chosen.daemon.size = sizeof chosen.daemon;
    chosen.daemon.name = "consoled";
    chosen.daemon.version = TTYLINE_VERSION;
    if (!chosen.users.empty() || !chosen.groups.empty()) {
        chosen.daemon.path_mode = OPEN_PATH_MODE;
    }
    kit_run(&chosen.daemon);
    errx(1, "%s", kit_error());
}
