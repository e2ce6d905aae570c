#include "tests/system/kit/kit_daemon.h"

#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

using Clock = std::chrono::steady_clock;

kit_service service_on(const std::string &unix_path)
{
    kit_service service = {};

    service.size = sizeof service;
    service.protocol = 7;
    service.path = unix_path.c_str();
    return service;
}

void KitTest::SetUp()
{
    SystemTest::SetUp();
    record.size = sizeof record;
    record.name = "kitd";
    control_path = path("/control");
    record.control = control_path.c_str();
    inetd = std::make_unique<AnsweringInetd>();
}

void KitTest::TearDown()
{
    daemon.reset();
    inetd.reset();
    SystemTest::TearDown();
}

// Without a connection, which would take a line.
static bool unix_path_listens(const std::string &unix_path)
{
    std::ifstream table("/proc/net/unix");
    std::string line;

    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string word;
        std::vector<std::string> all;
        while (words >> word) {
            all.push_back(word);
        }
        // Flags, type, state: 00010000 is a listener's flag.
        if (all.size() == 8 && all[3] == "00010000" && all[7] == unix_path) {
            return true;
        }
    }
    return false;
}

static bool listens(const kit_service *service)
{
    if (service->path != nullptr) {
        return unix_path_listens(service->path);
    }
    const uint32_t families =
        service->families != 0 ? service->families : KIT_IPV4 | KIT_IPV6;
    return ((families & KIT_IPV4) == 0 ||
            port_listens(AF_INET, service->port)) &&
           ((families & KIT_IPV6) == 0 ||
            port_listens(AF_INET6, service->port));
}

void KitTest::start(std::vector<const kit_service *> services)
{
    daemon = std::make_unique<Daemon>([&] {
        if (beforehand) {
            beforehand();
        }
        for (const kit_service *service : services) {
            if (kit_offer(service) != 0) {
                fprintf(stderr, "%s\n", kit_error());
                _exit(98);
            }
        }
        kit_run(&record);
        fprintf(stderr, "%s\n", kit_error());
        _exit(97);
    });
    inetd->start();
    for (const kit_service *service : services) {
        ASSERT_TRUE(eventually([&] {
            return listens(service);
        }));
    }
}

int KitTest::client_of(const kit_service &service)
{
    if (service.path != nullptr) {
        return connect_path(service.path);
    }
    return connect_port(service.families == KIT_IPV6 ? AF_INET6 : AF_INET,
                        service.port);
}

std::string KitTest::all_of(int client)
{
    const auto end = Clock::now() + std::chrono::milliseconds(DEADLINE_MS);
    std::string text;
    char bytes[65536];

    while (Clock::now() < end) {
        pollfd watched = {client, POLLIN, 0};
        if (poll(&watched, 1, 100) <= 0) {
            continue;
        }
        const ssize_t got = read(client, bytes, sizeof bytes);
        if (got <= 0) {
            return text;
        }
        text.append(bytes, static_cast<size_t>(got));
    }
    return text + "(still open)";
}

std::string KitTest::ask(const std::string &line) const
{
    const int client = connect_path(control_path);
    std::string answer;

    if (client < 0 || !write_all(client, line + "\n")) {
        return "nobody answers";
    }
    shutdown(client, SHUT_WR);
    answer = all_of(client);
    close(client);
    return answer;
}

std::string KitTest::word_of(const std::string &answer, const std::string &name)
{
    std::istringstream row(answer.substr(0, answer.find('\n')));
    std::string word;

    while (row >> word) {
        if (word.compare(0, name.size() + 1, name + "=") == 0) {
            return word.substr(name.size() + 1);
        }
    }
    return "";
}

std::string KitTest::running() const
{
    std::string row;

    EXPECT_TRUE(eventually([&] {
        row = ask("sessions");
        return word_of(row, "pid") > "0";
    })) << row;
    return row;
}

std::vector<std::string> KitTest::stored(int line) const
{
    std::ifstream file(path("/mng/tty/.tty_info_" + std::to_string(line)));
    std::vector<std::string> entries;
    std::string entry;

    while (std::getline(file, entry)) {
        if (!entry.empty() && entry.back() == '\r') {
            entry.pop_back();
        }
        entries.push_back(entry);
    }
    return entries;
}

bool KitTest::stored_has(int line, const std::string &entry) const
{
    for (const std::string &one : stored(line)) {
        if (one == entry) {
            return true;
        }
    }
    return false;
}
