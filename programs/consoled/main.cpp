/*
 * consoled: a login daemon that puts every connection on a terminal line of
 * its own, with a shell (or another program) behind it. Connections come in
 * on a TCP port over IPv4 and IPv6 and on a unix path; another unix path may
 * lead to the line console, rl-con.
 *
 * It asks for no password and encrypts nothing: whoever gets in is the user
 * who runs it. Protect the path by the permissions of its directory, and the
 * port by --allow.
 *
 * A session ends when its program ends or when the peer closes its sending
 * direction, which counts as hanging up: a socket at end of file stays
 * readable for ever, so waiting for a program that may never notice would
 * keep the loop spinning. A client that wants the answer to its last line
 * keeps its end open until the program has ended.
 *
 * All callbacks run on the one thread of vc_service_start(), which serves all
 * lines; what daemon_relay.h says about waiting holds for all of them.
 */
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <getopt.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <string>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include <ttyline/vc.h>

#include "programs/consoled/control.h"
#include "programs/consoled/relay.h"
#include "programs/shared/session_child.h"

static constexpr int protocol_port = 6;
static constexpr int protocol_path = 7;
static constexpr int protocol_inpath = 10;

struct line {
    int sockfd;
    int master_fd;
    relay to_terminal;
    relay to_peer;
};

static line *g_lines[TTY_LINES];
static std::vector<allow_entry> g_allowed;
static std::vector<std::string> g_program;
static std::string g_term = "vt100";

static line *find_line(int ttyno)
{
    return ttyno >= 0 && ttyno < TTY_LINES ? g_lines[ttyno] : nullptr;
}

static int alloc_line(int ttyno, int inetd_fd, int sockfd, int master_fd)
{
    int on = 1;

    (void)inetd_fd;
    if (ttyno < 0 || ttyno >= TTY_LINES || g_lines[ttyno] != nullptr) {
        return -1;
    }
    line *l = new (std::nothrow) line();
    if (l == nullptr) {
        return -1;
    }
    l->sockfd = sockfd;
    l->master_fd = master_fd;
    g_lines[ttyno] = l;
    /* The second one fails on a unix socket, where nothing is delayed. */
    setsockopt(sockfd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(sockfd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return 0;
}

static int init_line(int ttyno)
{
    return find_line(ttyno) != nullptr ? 0 : -1;
}

static int from_peer(int ttyno)
{
    line *l = find_line(ttyno);

    if (l == nullptr) {
        return -1;
    }
    return relay_step(l->to_terminal, l->sockfd, l->master_fd);
}

static int to_peer(int ttyno)
{
    line *l = find_line(ttyno);

    if (l == nullptr) {
        return -1;
    }
    return relay_step(l->to_peer, l->master_fd, l->sockfd);
}

/*
 * Closing a TCP socket with unread input resets the connection, and a reset
 * throws away what the peer has not read yet.
 */
static void discard_input(int sockfd)
{
    char scrap[4096];

    for (int i = 0; i < 16; i++) {
        if (recv(sockfd, scrap, sizeof scrap, MSG_DONTWAIT) <= 0) {
            break;
        }
    }
}

static int kill_line(int ttyno)
{
    line *l = find_line(ttyno);

    if (l == nullptr) {
        return 0;
    }
    /* A connection that has failed takes nothing more. */
    if (l->to_terminal.source_error == 0) {
        relay_drain(l->to_peer, l->master_fd, l->sockfd);
        discard_input(l->sockfd);
    }
    g_lines[ttyno] = nullptr;
    delete l;
    return 0;
}

/* Runs in the forked child, with the terminal on descriptors 0 to 2. */
static int run_program(int ttyno, const char *ttydev)
{
    std::vector<char *> arguments;

    (void)ttyno;
    prepare_session_child(g_term.c_str());
    make_terminal_sane(0);
    arguments.reserve(g_program.size() + 2);
    for (std::string &word : g_program) {
        arguments.push_back(&word[0]);
    }
    /* A shell is a login shell when its own name begins with a dash. */
    std::string program = g_program.empty() ? user_shell() : g_program[0];
    std::string login = "-" + program.substr(program.rfind('/') + 1);
    if (g_program.empty()) {
        arguments.push_back(&login[0]);
    }
    arguments.push_back(nullptr);
    execvp(program.c_str(), arguments.data());
    warn("%s: cannot run %s", ttydev, program.c_str());
    _exit(127);
}

static bool permit_peer(const sockaddr *local, const sockaddr *peer)
{
    (void)local;
    return allow_list_permits(g_allowed, peer);
}

static vc_reg describe_service(int family, uint32_t protocol)
{
    vc_reg service = {};

    service.socket_type = family;
    service.protocol = protocol;
    service.init_func = init_line;
    service.read_func = from_peer;
    service.write_func = to_peer;
    service.kill_func = kill_line;
    service.alloc_func = alloc_line;
    service.shell_func = run_program;
    service.acl_func = permit_peer;
    return service;
}

static void offer_port(int family, int port)
{
    vc_reg service = describe_service(family, protocol_port);

    service.listen_port = port;
    if (vc_service_reg(&service) != 0) {
        errx(1, "cannot register port %d", port);
    }
}

static void offer_path(const char *path)
{
    vc_reg service = describe_service(AF_UNIX, protocol_path);

    service.listen_path = path;
    if (vc_service_reg(&service) != 0) {
        errx(1, "cannot register path %s", path);
    }
}

/*
 * The console's terminal type is that of this process: the library starts the
 * program itself.
 */
static void offer_inpath(const char *path)
{
    setenv("TERM", g_term.c_str(), 1);
    if (vc_inpath_reg(path) != 0) {
        errx(1, "cannot register in-path service %s", path);
    }
}

static const char help[] =
    "usage: consoled [options] [program [argument ...]]\n"
    "  --port N            offer TCP port N (1 to 65535)\n"
    "  --path PATH         offer a unix path, at most 63 characters\n"
    "  --inpath PATH       offer the line console on a unix path, at most 63\n"
    "                      characters; runs rl-con, found through PATH\n"
    "  --control PATH      take commands on a unix path that only this user\n"
    "                      can open; send it 'help'\n"
    "  --allow ADDR[/BITS] let only these peers in on the port; repeatable\n"
    "  --no-ipv4           offer the port over IPv6 only\n"
    "  --no-ipv6           offer the port over IPv4 only\n"
    "  --term TERM         terminal type of the sessions (vt100)\n"
    "  --help              print this\n"
    "At least one of --port, --path and --inpath is needed. Without a program\n"
    "each session is a login shell. There is no password: whoever gets in is\n"
    "the user who runs consoled.\n"
    "What passes on a line of --inpath is written to .vc_dump.txt in the\n"
    "runtime directory as it is, passwords included. Keep that directory\n"
    "($TMPDIR/mng/tty) closed to others: mode 0700.\n";

struct options {
    int port;
    const char *path;
    const char *inpath;
    const char *control;
    bool ipv4;
    bool ipv6;
};

[[noreturn]] static void refuse(const char *text, const char *reason)
{
    errx(2, "%s: %s (try --help)", text, reason);
}

static int parse_port(const char *text)
{
    char *end = nullptr;
    long port = strtol(text, &end, 10);

    if (end == text || *end != '\0' || port < 1 || port > 65535) {
        refuse(text, "not a port");
    }
    return static_cast<int>(port);
}

static const char *parse_path(const char *text)
{
    if (*text == '\0' || strlen(text) >= VC_PATH_SIZE) {
        refuse(text, "not a path of 1 to 63 characters");
    }
    return text;
}

static allow_entry parse_allow(const char *text)
{
    allow_entry entry;

    if (!parse_allow_entry(text, entry)) {
        refuse(text, "not an address or address/bits");
    }
    return entry;
}

static void parse_option(int letter, options &chosen)
{
    switch (letter) {
    case 'p':
        chosen.port = parse_port(optarg);
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
        chosen.control = optarg;
        break;
    case 'a':
        g_allowed.push_back(parse_allow(optarg));
        break;
    case '4':
        chosen.ipv4 = false;
        break;
    case '6':
        chosen.ipv6 = false;
        break;
    case 't':
        g_term = optarg;
        break;
    case 'h':
        fputs(help, stdout);
        exit(0);
    default:
        fputs(help, stderr);
        exit(2);
    }
}

static options parse_command_line(int argc, char **argv)
{
    static const option known[] = {{"port", required_argument, nullptr, 'p'},
                                   {"path", required_argument, nullptr, 'u'},
                                   {"inpath", required_argument, nullptr, 'i'},
                                   {"control", required_argument, nullptr, 'c'},
                                   {"allow", required_argument, nullptr, 'a'},
                                   {"no-ipv4", no_argument, nullptr, '4'},
                                   {"no-ipv6", no_argument, nullptr, '6'},
                                   {"term", required_argument, nullptr, 't'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    options chosen = {0, nullptr, nullptr, nullptr, true, true};
    int letter;

    /* The plus: what follows the program's name are its own options. */
    while ((letter = getopt_long(argc, argv, "+", known, nullptr)) != -1) {
        parse_option(letter, chosen);
    }
    g_program.assign(argv + optind, argv + argc);
    if (chosen.port == 0 && chosen.path == nullptr &&
        chosen.inpath == nullptr) {
        refuse(argv[0], "none of --port, --path and --inpath given");
    }
    if (chosen.port != 0 && !chosen.ipv4 && !chosen.ipv6) {
        refuse(argv[0], "--no-ipv4 and --no-ipv6 leave --port nothing");
    }
    return chosen;
}

static void interrupt_wait(int number)
{
    (void)number;
}

/*
 * Without a SIGCHLD handler a process that has ended stays a zombie, and its
 * session a session when something else holds its terminal open, until the
 * loop comes by for another reason, within a minute. An empty handler
 * interrupts the loop's wait, and the loop's own check does the rest.
 */
static void notice_ends_of_children()
{
    struct sigaction action = {};

    action.sa_handler = interrupt_wait;
    sigemptyset(&action.sa_mask);
    sigaction(SIGCHLD, &action, nullptr);
}

/*
 * The in-path service comes last: the session service installs no SIGCHLD
 * handler when the protocol of the first registration of the process is 10.
 */
static std::vector<int> offer_services(const options &chosen)
{
    std::vector<int> protocols;

    if (chosen.port != 0) {
        protocols.push_back(protocol_port);
    }
    if (chosen.port != 0 && chosen.ipv4) {
        offer_port(AF_INET, chosen.port);
    }
    if (chosen.port != 0 && chosen.ipv6) {
        offer_port(AF_INET6, chosen.port);
    }
    if (chosen.path != nullptr) {
        protocols.push_back(protocol_path);
        offer_path(chosen.path);
    }
    if (chosen.inpath != nullptr) {
        if (protocols.empty()) {
            notice_ends_of_children();
        }
        protocols.push_back(protocol_inpath);
        offer_inpath(chosen.inpath);
    }
    return protocols;
}

int main(int argc, char **argv)
{
    options chosen = parse_command_line(argc, argv);
    std::string error;

    openlog("consoled", LOG_PID, LOG_DAEMON);
    if (!raise_descriptor_limit(watched_descriptors)) {
        warn("cannot raise the limit on open descriptors");
    }
    const std::vector<int> protocols = offer_services(chosen);
    if (chosen.control != nullptr &&
        !control_start(chosen.control, protocols, error)) {
        errx(1, "%s", error.c_str());
    }
    vc_service_start();
    errx(1, "the session service did not start");
}
