// Prints what the library knows of protocols and lines, for protocols.sh to
// compare with the public header ("header") and with vc(7) ("page").
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "vc/protocol.h"

struct range {
    int first;
    int last;
};

static std::string constant_of(const vc_protocol *protocol)
{
    std::string constant = "VC_PROTOCOL_";

    for (const char *c = protocol->name; *c != '\0'; c++) {
        constant += *c == '-' ? '_' : static_cast<char>(toupper(*c));
    }
    return constant;
}

static const char *address_of(const vc_protocol *protocol)
{
    switch (protocol->address) {
    case ADDRESS_ANY:
        return "any";
    case ADDRESS_INET:
        return "IP";
    case ADDRESS_TIPC:
        return "TIPC";
    case ADDRESS_PATH:
        return "path";
    }
    return "";
}

static const char *label_of(const vc_protocol *protocol)
{
    switch (protocol->label) {
    case LABEL_KEPT:
        return "-";
    case LABEL_NULL:
        return "Dv NULL";
    case LABEL_WEB:
        return "web";
    case LABEL_VTY:
        return "vty";
    case LABEL_INS:
        return "ins";
    }
    return "";
}

static std::string besides(uint32_t number)
{
    const vc_protocol *protocol = vc_protocol_of(number);
    std::string text;
    const auto add = [&](const std::string &fact) {
        text += (text.empty() ? "" : ", ") + fact;
    };

    if (protocol->tipc_port != 0) {
        add("port " + std::to_string(protocol->tipc_port));
    }
    if (protocol->partner != number) {
        add("fails with " + std::to_string(protocol->partner));
    }
    if (protocol->starts_closed) {
        add("starts closed");
    }
    if (protocol->leaves_sigchld) {
        add("leaves SIGCHLD");
    }
    return text.empty() ? "-" : text;
}

// The runs of lines of which is(line) holds.
static range run_from(int ttyno, bool (*is)(int ttyno))
{
    range run;

    while (ttyno < TTY_LINES && !is(ttyno)) {
        ttyno++;
    }
    run.first = ttyno;
    while (ttyno < TTY_LINES && is(ttyno)) {
        ttyno++;
    }
    run.last = ttyno - 1;
    return run;
}

static void print_line_range(const char *name, range run, bool page)
{
    if (page) {
        printf(".It %d Ta %d Ta Dv VC_LINE_%s_FIRST , VC_LINE_%s_LAST\n",
               run.first, run.last, name, name);
    } else {
        printf("VC_LINE_%s_FIRST %d\nVC_LINE_%s_LAST %d\n", name, run.first,
               name, run.last);
    }
}

int main(int argc, char **argv)
{
    const bool page = argc == 2 && strcmp(argv[1], "page") == 0;

    for (uint32_t number = 0; number <= VC_PROTOCOL_MAX; number++) {
        const vc_protocol *protocol = vc_protocol_of(number);
        if (page) {
            printf(".It %u Ta Dv %s Ta %s Ta %s Ta %d Ta %s Ta %s\n", number,
                   constant_of(protocol).c_str(), address_of(protocol),
                   protocol->relayed ? "loop" : "program",
                   protocol->terminal_type, label_of(protocol),
                   besides(number).c_str());
        } else {
            printf("%s %u\n", constant_of(protocol).c_str(), number);
        }
    }
    const range low = run_from(0, vc_line_carries_sessions);
    const range high = run_from(low.last + 1, vc_line_carries_sessions);
    const range none = run_from(high.last + 1, vc_line_carries_sessions);
    print_line_range("VTY", run_from(0, vc_line_clearable), page);
    print_line_range("LOW", low, page);
    print_line_range("HIGH", high, page);
    return none.first == TTY_LINES ? 0 : 1;
}
