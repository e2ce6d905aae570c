// Commands of the control socket, on services and sessions of the test's.
#include "kit/command.h"

#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <ttyline/kit.h>
#include <ttyline/vc.h>

#include "kit/bell.h"
#include "kit/table.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"

constexpr int LINE = 258;

static int nothing(const kit_session *, void *)
{
    return 0;
}

static kit_service service_of(uint32_t protocol, int port, uint32_t families)
{
    kit_service service = {};

    service.size = sizeof service;
    service.protocol = protocol;
    service.port = port;
    service.families = families;
    service.path = port == 0 ? "/nowhere/console" : nullptr;
    service.function = nothing;
    return service;
}

static kit_service g_four = service_of(6, 4001, KIT_IPV4);
static kit_service g_six = service_of(6, 4002, KIT_IPV6);
static kit_service g_both = service_of(5, 4003, 0);
static kit_service g_path = service_of(7, 0, 0);

class KitCommand : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        daemon.size = sizeof daemon;
        for (const kit_service *service : {&g_four, &g_six, &g_both, &g_path}) {
            ASSERT_EQ(kit_offer(service), 0) << kit_error();
        }
    }

    std::string ask(std::string line)
    {
        kit_report report = {};
        kit_command_run(&daemon, line.data(), &report);
        const std::string text = report.text;
        kit_report_free(&report);
        return text;
    }

    // A session of a service, without a keeper; its bell is the other end.
    static int begin(int line, const kit_service *service)
    {
        kit_entry *entry = kit_entry_make(line);
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends),
                  0);
        entry->bell = ends[0];
        entry->session.service = service;
        entry->node = kit_node_of(service);
        kit_table_put(entry);
        return ends[1];
    }

    static void end(int line, int bell)
    {
        kit_entry *entry = kit_entry_at(line);
        close(entry->bell);
        close(bell);
        kit_table_take(entry);
        kit_entry_free(entry);
    }

    kit_daemon daemon = {};
};

TEST_F(KitCommand, services_are_listed_with_where_they_are_reached)
{
    EXPECT_EQ(ask("services"),
              "service=protocol-6 protocol=6 family=ipv4 port=4001 state=open "
              "sessions=0\n"
              "service=protocol-6 protocol=6 family=ipv6 port=4002 state=open "
              "sessions=0\n"
              "service=protocol-5 protocol=5 family=ipv4,ipv6 port=4003 "
              "state=open sessions=0\n"
              "service=protocol-7 protocol=7 family=unix path=/nowhere/console "
              "state=open sessions=0\n"
              "ok\n");
}

TEST_F(KitCommand, sessions_count_with_their_own_service)
{
    const int one = begin(LINE, &g_path);
    const int other = begin(LINE + 1, &g_four);
    std::string text = ask("services");
    EXPECT_NE(text.find("port=4001 state=open sessions=1\n"),
              std::string::npos);
    EXPECT_NE(text.find("port=4003 state=open sessions=0\n"),
              std::string::npos);
    EXPECT_NE(text.find("console state=open sessions=1\n"), std::string::npos);
    text = ask("status");
    EXPECT_NE(text.find(" services=4 sessions=2 allocation=away\n"),
              std::string::npos)
        << text;
    end(LINE, one);
    end(LINE + 1, other);
}

TEST_F(KitCommand, daemon_without_a_name_has_that_of_its_program)
{
    EXPECT_EQ(ask("status").find(
                  "daemon=" + std::string(program_invocation_short_name) +
                  " version=- "),
              0u);
    daemon.name = "somebody";
    daemon.version = "1.2";
    EXPECT_EQ(ask("status").find("daemon=somebody version=1.2 "), 0u);
}

TEST_F(KitCommand, protocol_is_a_number_that_is_offered)
{
    for (const char *line : {"open 3", "stop 12", "port 4 1 2", "tos x 2 0"}) {
        EXPECT_EQ(ask(line), "error: no service of this protocol\n") << line;
    }
}

TEST_F(KitCommand, stopped_services_say_so_until_they_are_opened)
{
    EXPECT_EQ(ask("stop 6"), "ok\n");
    std::string text = ask("services");
    EXPECT_NE(text.find("port=4001 state=stopped"), std::string::npos);
    EXPECT_NE(text.find("port=4002 state=stopped"), std::string::npos);
    EXPECT_NE(text.find("port=4003 state=open"), std::string::npos);
    EXPECT_EQ(ask("open 6"), "ok\n");
    EXPECT_EQ(ask("open 6"), "ok\n");
    text = ask("services");
    EXPECT_EQ(text.find("state=stopped"), std::string::npos);
}

TEST_F(KitCommand, port_moves_only_when_the_line_allocation_daemon_is_told)
{
    fault_row("kit_command_run", "vc_service_update_port", "result -1",
              "\"could not be told\"", "", "the port as it was");
    EXPECT_EQ(ask("port 6 0 4004"), "error: a port is 1 to 65535\n");
    EXPECT_EQ(ask("port 6 4001 65536"), "error: a port is 1 to 65535\n");
    // There is none here: the port stays where it was.
    EXPECT_EQ(ask("port 6 4001 4004"),
              "error: the line-allocation daemon could not be told\n");
    const std::string text = ask("services");
    EXPECT_NE(text.find("family=ipv4 port=4001 "), std::string::npos) << text;
}

TEST_F(KitCommand, tos_is_that_of_a_family_and_a_byte)
{
    fault_row("kit_command_run", "vc_tos_set", "result -1",
              "\"no service of this protocol and family\"", "", "");
    for (const char *family : {"1", "3", "11", "x"}) {
        EXPECT_EQ(ask(std::string("tos 6 ") + family + " 0"),
                  "error: a family is 2 (IPv4) or 10 (IPv6)\n");
    }
    EXPECT_EQ(ask("tos 6 2 256"), "error: a value is 0 to 255\n");
    EXPECT_EQ(ask("tos 7 2 0"),
              "error: no service of this protocol and family\n");
}

TEST_F(KitCommand, session_is_ended_with_the_operators_words)
{
    const int bell = begin(LINE, &g_path);
    EXPECT_EQ(ask("kick 1586"), "error: a line is 0 to 1585\n");
    EXPECT_EQ(ask("kick 259"), "error: there is no session on line 259\n");
    EXPECT_EQ(ask("kick 258  work\tat noon"), "ok\n");
    bell_message message = {};
    EXPECT_EQ(kit_bell_hear(bell, &message), 1);
    EXPECT_EQ(message.kind, BELL_END);
    EXPECT_STREQ(message.text, "work at noon");
    EXPECT_EQ(ask("kick 258"), "ok\n");
    EXPECT_EQ(kit_bell_hear(bell, &message), 1);
    EXPECT_STREQ(message.text, "ended by the operator");
    end(LINE, bell);
}

TEST_F(KitCommand, words_beyond_the_32nd_are_not_read)
{
    const int bell = begin(LINE, &g_path);
    std::string line = "kick 258";
    std::string words;
    for (int i = 0; i < 40; i++) {
        line += " w";
        words += i < 30 ? "w " : "";
    }
    words.pop_back();
    EXPECT_EQ(ask(line), "ok\n");
    bell_message message = {};
    EXPECT_EQ(kit_bell_hear(bell, &message), 1);
    EXPECT_EQ(message.text, words);
    end(LINE, bell);
}

TEST_F(KitCommand, help_is_a_list_in_both_forms)
{
    EXPECT_EQ(ask("help").find("status  the daemon\n"), 0u);
    const std::string json = ask("help --json");
    EXPECT_EQ(json.find("{\"help\":[{\"text\":\"status  the daemon\"},{"), 0u)
        << json;
    EXPECT_NE(json.find("}]}\n"), std::string::npos);
    EXPECT_EQ(ask("help me"), "error: usage: help\n");
    EXPECT_EQ(ask("stop"), "error: usage: stop PROTOCOL\n");
    EXPECT_EQ(ask(""), "error: unknown command, try help\n");
    EXPECT_EQ(ask("--json"), "{\"error\":\"unknown command, try help\"}\n");
}

static int refuse_to_reload(char *reason, size_t size, void *)
{
    return snprintf(reason, size, "line 3 is wrong");
}

TEST_F(KitCommand, reload_says_why_it_failed)
{
    EXPECT_EQ(ask("reload"), "error: there is nothing to reload\n");
    daemon.reload = refuse_to_reload;
    EXPECT_EQ(ask("reload"), "error: line 3 is wrong\n");
    daemon.reload = [](char *, size_t, void *) {
        return 0;
    };
    EXPECT_EQ(ask("reload"), "ok\n");
}

TEST_F(KitCommand, answer_without_memory_says_so)
{
    fault_row("kit_report_end", "realloc", "ENOMEM", "\"out of memory\"", "",
              "the answer is given up");
    fault::fail("realloc", 1, ENOMEM);
    EXPECT_EQ(ask("services"), "error: out of memory\n");
    fault::fail("realloc", 1, ENOMEM);
    EXPECT_EQ(ask("services --json"), "{\"error\":\"out of memory\"}\n");
}
