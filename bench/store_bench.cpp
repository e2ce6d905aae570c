// The line library's store against its peers at the same work, with one
// process and with eight, on lines of their own and all on one. The processes
// open their handles and wait; the time is from their release until the last
// one has done its operations. Everything lies in a directory under TMPDIR (or
// /tmp) and is removed at the end.
#include <benchmark/benchmark.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/store_peers.h"
#include "common/keys.h"

constexpr int MANY = 8;
static_assert(MANY <= LINES, "a line for each process");
constexpr time_t OPEN_SECONDS = 20;
// A set, then nine gets.
constexpr long MIX = 10;
// Has no factor in common with the number of keys: every key has its turn.
constexpr long KEY_STEP = 37;

struct work {
    const char *name;
    long sets_every;       // 0: none, 1: nothing else
    const char *fixed_key; // null: one key after the other
};

static const work works[] = {
    {"get_first", 0, tty_envs[0]},
    {"get_last", 0, tty_envs[TTY_ENV_COUNT - 1]},
    {"set", 1, nullptr},
    {"mixed", MIX, nullptr},
};

// One run of a benchmark.
struct job {
    const peer *who;
    const work *what;
    int processes;
    bool one_line;
    long operations; // of each process
    std::string directory;
    char token[VALUE_SIZE]; // what a fixed key holds
};

// Between the processes.
struct shared {
    sem_t ready;
    sem_t go;
    struct timespec ends[MANY];
};

static unsigned int line_of(const job &job, int process)
{
    return FIRST_LINE +
           (job.one_line ? 0U : static_cast<unsigned int>(process));
}

static const char *key_of(const job &job, long operation)
{
    return job.what->fixed_key != nullptr
               ? job.what->fixed_key
               : tty_envs[operation * KEY_STEP % TTY_ENV_COUNT];
}

static void make_value(char (&value)[VALUE_SIZE], int process, long operation)
{
    (void)snprintf(value, sizeof value, "%02u-%09u",
                   static_cast<unsigned int>(process) % 100,
                   static_cast<unsigned int>(operation) % 1000000000);
}

// What other processes store is as long, but not known here.
static bool as_expected(const job &job, const char *value)
{
    return job.what->fixed_key != nullptr ? strcmp(value, job.token) == 0
                                          : strlen(value) == VALUE_SIZE - 1;
}

static bool operate(const job &job, store *handle, int process)
{
    const unsigned int line = line_of(job, process);
    const long sets_every = job.what->sets_every;
    char value[VALUE_SIZE];

    for (long i = 0; i < job.operations; i++) {
        const char *key = key_of(job, i);
        if (sets_every > 0 && i % sets_every == 0) {
            make_value(value, process, i);
            if (!handle->set(line, key, value)) {
                return false;
            }
        } else if (!handle->get(line, key, value) || !as_expected(job, value)) {
            return false;
        }
    }
    return true;
}

[[noreturn]] static void work_in_child(const job &job, int process,
                                       pid_t parent, shared *run)
{
    bool good = false;

    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(1);
    }
    try {
        const auto handle = job.who->open(job.directory);
        sem_post(&run->ready);
        sem_wait(&run->go);
        good = operate(job, handle.get(), process);
        clock_gettime(CLOCK_MONOTONIC, &run->ends[process]);
    } catch (const std::exception &error) {
        fprintf(stderr, "%s: %s\n", job.who->name, error.what());
    }
    _exit(good ? 0 : 1);
}

static bool wait_until_ready(const job &job, shared *run)
{
    struct timespec deadline;

    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += OPEN_SECONDS;
    for (int i = 0; i < job.processes; i++) {
        if (sem_timedwait(&run->ready, &deadline) != 0) {
            return false;
        }
    }
    return true;
}

static double seconds_between(const timespec &from, const timespec &to)
{
    return static_cast<double>(to.tv_sec - from.tv_sec) +
           static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9;
}

// Returns the seconds from the release to the end of the last process.
static double time_processes(const job &job, shared *run)
{
    std::vector<pid_t> children;
    const pid_t self = getpid();
    struct timespec start;
    bool good = true;
    double seconds = 0;

    for (int i = 0; i < job.processes; i++) {
        const pid_t child = fork();
        if (child == 0) {
            work_in_child(job, i, self, run);
        }
        good = good && child > 0;
        if (child > 0) {
            children.push_back(child);
        }
    }
    good = good && wait_until_ready(job, run);
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (const pid_t child : children) {
        good ? sem_post(&run->go) : kill(child, SIGKILL);
    }
    for (const pid_t child : children) {
        int status = 0;
        good = waitpid(child, &status, 0) == child && status == 0 && good;
    }
    if (!good) {
        throw std::runtime_error("a process failed");
    }
    for (int i = 0; i < job.processes; i++) {
        seconds = std::max(seconds, seconds_between(start, run->ends[i]));
    }
    return seconds;
}

static double time_job(const job &job)
{
    void *memory = mmap(nullptr, sizeof(shared), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("mmap");
    }
    auto *run = new (memory) shared();
    sem_init(&run->ready, 1, 0);
    sem_init(&run->go, 1, 0);
    try {
        const double seconds = time_processes(job, run);
        munmap(memory, sizeof(shared));
        return seconds;
    } catch (...) {
        munmap(memory, sizeof(shared));
        throw;
    }
}

// Gives the fixed key a value that it never had, which each get then finds.
static void make_token(job *job)
{
    static long tokens = 0;

    if (job->what->fixed_key == nullptr) {
        return;
    }
    make_value(job->token, MANY, tokens++);
    const auto handle = job->who->open(job->directory);
    for (int i = 0; i < job->processes; i++) {
        if (!handle->set(line_of(*job, i), job->what->fixed_key, job->token)) {
            throw std::runtime_error("the first set failed");
        }
    }
}

// What was set last is there for a process that opens the store afterwards. On
// one line it is that of any process.
static void check_last_set(const job &job)
{
    if (job.what->sets_every == 0) {
        return;
    }
    const long last =
        (job.operations - 1) / job.what->sets_every * job.what->sets_every;
    const auto handle = job.who->open(job.directory);
    for (int i = 0; i < job.processes; i++) {
        char value[VALUE_SIZE] = {};
        char wanted[VALUE_SIZE];
        bool found = false;
        handle->get(line_of(job, i), key_of(job, last), value);
        for (int writer = 0; writer < job.processes; writer++) {
            make_value(wanted, writer, last);
            found = found || ((job.one_line || writer == i) &&
                              strcmp(value, wanted) == 0);
        }
        if (!found) {
            throw std::runtime_error("what was set last is not there");
        }
    }
}

// The files of a peer, made at its first benchmark and kept for the others.
static const std::string &directory_of(const peer &who, const std::string &top)
{
    static std::map<std::string, std::string> directories;
    std::string &directory = directories[who.name];

    if (directory.empty()) {
        char value[VALUE_SIZE];
        const std::string path = top + "/" + who.name;
        std::filesystem::create_directory(path);
        make_value(value, MANY, 0);
        who.fill(path, value);
        directory = path;
    }
    return directory;
}

static void run_benchmark(benchmark::State &state, job job,
                          const std::string &top)
{
    job.operations = state.max_iterations;
    while (state.KeepRunningBatch(state.max_iterations)) {
        try {
            job.directory = directory_of(*job.who, top);
            make_token(&job);
            state.SetIterationTime(time_job(job));
            check_last_set(job);
        } catch (const std::exception &error) {
            state.SkipWithError(error.what());
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * job.processes);
}

static void add_benchmark(const peer &who, const work &what, int processes,
                          bool one_line, const std::string &top)
{
    const std::string name = std::string(what.name) + "/" + who.name + "/" +
                             std::to_string(processes) +
                             (one_line ? "/one" : "/own");
    const job job = {&who, &what, processes, one_line, 0, {}, {}};

    benchmark::RegisterBenchmark(name.c_str(),
                                 [job, top](benchmark::State &state) {
                                     run_benchmark(state, job, top);
                                 })
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
}

static void add_benchmarks(const std::string &top)
{
    for (const work &what : works) {
        for (const peer &who : peers) {
            add_benchmark(who, what, 1, false, top);
            add_benchmark(who, what, MANY, false, top);
            add_benchmark(who, what, MANY, true, top);
        }
    }
}

int main(int argc, char **argv)
{
    const char *base = getenv("TMPDIR");
    std::string top =
        std::string(base != nullptr ? base : "/tmp") + "/store.XXXXXX";

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    if (mkdtemp(top.data()) == nullptr) {
        perror(top.c_str());
        return 1;
    }
    add_benchmarks(top);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(top);
    return 0;
}
