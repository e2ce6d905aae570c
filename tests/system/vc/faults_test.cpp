// Whole daemons whose system calls fail in the kernel's place: a tracer makes
// the calls of the loop's thread fail, whatever library makes them. The daemon
// lives on and serves the next client.
#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "tests/system/support/daemon.h"
#include "tests/system/support/fake_inetd.h"
#include "tests/system/support/program.h"

struct FaultCase {
    const char *name;
    // Set of calls, error, and which of them fail, as the tracer takes it.
    const char *inject;
    // How many failures the daemon must have met.
    int times;
    // What the daemon must have logged; empty for a failure without a line.
    const char *log;
};

// What a list of tests shows of it.
static void PrintTo(const FaultCase &one, std::ostream *out)
{
    *out << one.inject;
}

static const FaultCase CASES[] = {
    {"a_storm_of_accepts_without_descriptors",
     "?accept,?accept4:error=EMFILE:when=1..50", 50,
     "vc: accept fail, errno=24, "},
    {"a_storm_of_accepts_without_system_descriptors",
     "?accept,?accept4:error=ENFILE:when=1..50", 50,
     "vc: accept fail, errno=23, "},
    {"clients_that_gave_up", "?accept,?accept4:error=ECONNABORTED:when=1..3", 3,
     "vc: accept fail, errno=103, "},
    {"a_fork_without_processes",
     "?fork,?vfork,?clone,?clone3:error=EAGAIN:when=1", 1,
     "vc: fork error, err:Resource temporarily unavailable.\r\n"},
    {"a_fork_without_memory", "?fork,?vfork,?clone,?clone3:error=ENOMEM:when=1",
     1, "vc: fork error, err:Cannot allocate memory.\r\n"},
    {"an_inetd_that_resets", "recvfrom:error=ECONNRESET:when=1", 1,
     "vc: recv fail ret -1, err[104]:"},
    {"an_inetd_that_resets_again", "recvfrom:error=ECONNRESET:when=1..3", 3,
     "vc: recv fail ret -1, err[104]:"},
    {"every_third_write_interrupted", "write:error=EINTR:when=1+3", 5, ""},
    {"waits_interrupted", "?select,?pselect6:error=EINTR:when=1..50", 50, ""},
    {"waits_on_a_bad_descriptor", "?select,?pselect6:error=EBADF:when=1..50",
     50, ""},
    {"waits_without_memory", "?select,?pselect6:error=ENOMEM:when=1..3", 3,
     "vc: select error, ret:-1, error:Cannot allocate memory.\r\n"},
    {"looks_at_the_listener_interrupted", "?poll,?ppoll:error=EINTR:when=1..5",
     5, ""},
    {"looks_for_children_interrupted", "wait4:error=EINTR:when=1..20", 20,
     "vc: child -1 is captured, errno(4): "},
    {"no_socket_for_the_inetd", "socket:error=EMFILE:when=1..3", 3,
     "vc: sock create fail, err Too many open files\n"},
    {"an_inetd_that_refuses", "connect:error=ECONNREFUSED:when=1..3", 3,
     "vc: sock fail, err Connection refused\n"},
    {"a_path_in_use", "bind:error=EADDRINUSE:when=1", 1,
     "vc: bind socket failed, sk="},
    {"a_listener_refused", "listen:error=EADDRINUSE:when=1", 1,
     "vc: listen socket failed, sk="},
    {"no_pair_for_the_release", "socketpair:error=EMFILE:when=1", 1,
     "vc_child_alloc socketpair failed, err: Too many open files\r\n"},
};

class FaultTest : public SystemTest,
                  public testing::WithParamInterface<FaultCase>
{
  protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        name_ = path("/s");
    }

    std::vector<std::string> tracer() const
    {
        const std::string inject = GetParam().inject;
        const std::string calls = inject.substr(0, inject.find(':'));

        return {"strace",     "-qq",
                "-o",         path("/trace"),
                "-e",         "trace=" + calls,
                "-e",         "inject=" + inject,
                FAULT_DAEMON, name_};
    }

    // How many calls the tracer has made fail so far.
    int failures() const
    {
        std::ifstream trace(path("/trace"));
        std::string line;
        int count = 0;

        while (std::getline(trace, line)) {
            count += line.find("(INJECTED)") != std::string::npos ? 1 : 0;
        }
        return count;
    }

    // Whether a new client gets its line and its answer. What a failed write
    // has left over waits for the next event when the end of the session before
    // interrupts the loop's wait: a client who sees nothing types on.
    bool served() const
    {
        const int client = connect_path(name_);
        if (client < 0) {
            return false;
        }
        const bool answered = write_all(client, "one\n") && answers(client);
        close(client);
        return answered;
    }

    static bool answers(int client)
    {
        std::string text;
        char bytes[256];

        for (int looks = 0; looks < 200; looks++) {
            pollfd watched = {client, POLLIN, 0};
            if (poll(&watched, 1, 100) == 0) {
                write_all(client, "\n");
                continue;
            }
            const ssize_t got = read(client, bytes, sizeof bytes);
            if (got <= 0) {
                return false;
            }
            text.append(bytes, static_cast<size_t>(got));
            if (text.find("> one") != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    std::string name_;
};

TEST_P(FaultTest, leaves_a_daemon_that_serves_the_next_client)
{
    AnsweringInetd inetd;
    Program daemon("/usr/bin/env", tracer(), [] {});
    inetd.start();
    EXPECT_TRUE(eventually([this] {
        return served();
    }));
    EXPECT_TRUE(served());
    EXPECT_TRUE(eventually([this] {
        return failures() >= GetParam().times;
    })) << failures()
        << " failures";
    EXPECT_TRUE(logged(GetParam().log));
    EXPECT_TRUE(process_runs(daemon.pid())) << "the daemon ended by itself";
}

INSTANTIATE_TEST_SUITE_P(Each, FaultTest, testing::ValuesIn(CASES),
                         [](const testing::TestParamInfo<FaultCase> &instance) {
                             return std::string(instance.param.name);
                         });
