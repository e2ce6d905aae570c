// What the system calls cost of which the loop's turns consist, for the
// arithmetic beside the figures of whole daemons. Per call, in nanoseconds.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include <benchmark/benchmark.h>

#include "vc/read_set.h"

// The descriptors of sessions that do nothing: connections and terminals.
class IdleSessions
{
  public:
    explicit IdleSessions(long count)
    {
        for (long i = 0; i < count; i++) {
            int ends[2];
            const int master = posix_openpt(O_RDWR | O_NOCTTY);
            if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
                socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
                abort();
            }
            // Without its program a terminal is at its end, which is readable.
            const int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
            connections.push_back(ends[0]);
            terminals.push_back(master);
            others.push_back(ends[1]);
            others.push_back(slave);
        }
    }
    ~IdleSessions()
    {
        for (const std::vector<int> *some :
             {&connections, &terminals, &others}) {
            for (const int fd : *some) {
                close(fd);
            }
        }
    }
    IdleSessions(const IdleSessions &) = delete;
    IdleSessions &operator=(const IdleSessions &) = delete;

    std::vector<int> connections;
    std::vector<int> terminals;

  private:
    std::vector<int> others;
};

static void switch_mode(benchmark::State &state, int fd)
{
    int off = 0;

    for (auto _ : state) {
        benchmark::DoNotOptimize(ioctl(fd, FIONBIO, &off));
    }
}

static void mode_of_connection(benchmark::State &state)
{
    const IdleSessions session(1);
    switch_mode(state, session.connections[0]);
}

static void mode_of_terminal(benchmark::State &state)
{
    const IdleSessions session(1);
    switch_mode(state, session.terminals[0]);
}

// With a time-out of nothing: what it costs to look at all of them.
static void select_sessions(benchmark::State &state)
{
    const IdleSessions sessions(state.range(0));
    static read_set wanted;

    read_set_clear(&wanted);
    for (size_t i = 0; i < sessions.connections.size(); i++) {
        read_set_add(&wanted, sessions.connections[i]);
        read_set_add(&wanted, sessions.terminals[i]);
    }
    for (auto _ : state) {
        static read_set set;
        memcpy(set.bits, wanted.bits,
               static_cast<size_t>(wanted.highest) / 8 + 8);
        set.highest = wanted.highest;
        if (read_set_wait(&set, 0, 0) != 0) {
            state.SkipWithError("a descriptor is readable or wrong");
            break;
        }
    }
}

// The kernel asks every child in turn.
static void reap_nothing(benchmark::State &state)
{
    std::vector<pid_t> children;

    for (long i = 0; i < state.range(0); i++) {
        const pid_t pid = fork();
        if (pid < 0) {
            abort();
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            pause();
            _exit(0);
        }
        children.push_back(pid);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(waitpid(-1, nullptr, WNOHANG));
    }
    for (const pid_t pid : children) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

BENCHMARK(mode_of_connection);
BENCHMARK(mode_of_terminal);
BENCHMARK(reap_nothing)->Arg(1)->Arg(100)->Arg(500)->Arg(1000);
BENCHMARK(select_sessions)->Arg(1)->Arg(100)->Arg(500)->Arg(1000);

int main(int argc, char **argv)
{
    rlimit limit;

    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
