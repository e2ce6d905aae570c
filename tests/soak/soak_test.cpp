// Thousands of sessions of every kind, an inetd at its worst, signals at any
// moment; afterwards the daemon holds what it held before.
//
//     TTYLINE_SOAK_SESSIONS=20000 TTYLINE_SOAK_SECONDS=3600
//     TTYLINE_SOAK_SEED=7 system_soak_test
//
// runs the long form, or an earlier one again: the seed decides what everybody
// does, though not when.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/soak/chaos_inetd.h"
#include "tests/system/support/daemon.h"

using Clock = std::chrono::steady_clock;

constexpr int SERVICES = 4;
constexpr int CLIENT_THREADS = 12;
constexpr PortRange OWN_PORTS = {6000, 4000};
constexpr long MEMORY_NOISE_KIB = 128;
constexpr int REST_DEADLINES = 4;
constexpr int LINES_MOST = 8;
constexpr int LINE_LENGTH_MOST = 600;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool INSTRUMENTED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ||     \
    __has_feature(memory_sanitizer)
constexpr bool INSTRUMENTED = true;
#else
constexpr bool INSTRUMENTED = false;
#endif
#else
constexpr bool INSTRUMENTED = false;
#endif

static int setting(const char *name, int otherwise)
{
    const char *text = getenv(name);

    return text != nullptr ? atoi(text) : otherwise;
}

// The connection of a session that is not relayed, for its program.
static int g_direct[TTY_LINES];

// Does what the first byte of a line says: exits, dies, leaves a process
// behind for a moment, or answers.
static void obey(int out, const std::string &line)
{
    switch (line[0]) {
    case 'x':
        _exit(0);
    case 'c':
        raise(SIGKILL);
        break;
    case 'f':
        if (fork() == 0) {
            usleep(20000);
            _exit(0);
        }
        break;
    default: {
        const std::string answer = "> " + line;
        for (size_t put = 0; put < answer.size();) {
            const ssize_t more =
                write(out, answer.data() + put, answer.size() - put);
            if (more < 0 && errno != EINTR) {
                _exit(1);
            }
            put += more > 0 ? static_cast<size_t>(more) : 0;
        }
        break;
    }
    }
}

static int obedient_program(int in, int out)
{
    char bytes[512];
    std::string line;

    for (;;) {
        const ssize_t got = read(in, bytes, sizeof bytes);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return 0;
        }
        for (ssize_t i = 0; i < got; i++) {
            line += bytes[i];
            if (bytes[i] == '\n') {
                obey(out, line);
                line.clear();
            }
        }
    }
}

static int program_on_terminal(int, const char *)
{
    return obedient_program(0, 1);
}

static int program_on_connection(int ttyno, const char *)
{
    return obedient_program(g_direct[ttyno], g_direct[ttyno]);
}

static int note_connection(int ttyno, int, int sockfd, int)
{
    g_direct[ttyno] = sockfd;
    return 0;
}

static int nothing_to_kill(int)
{
    return 0;
}

enum class behaviour {
    well_behaved,
    resets,
    half_closes,
    never_reads,
    floods,
    lets_exit,
    lets_crash,
    lets_fork,
    COUNT
};

class SoakTest : public SystemTest
{
  protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        port4_ = free_port(AF_INET, OWN_PORTS);
        direct_port_ = free_port(AF_INET, OWN_PORTS);
        port6_ = free_port(AF_INET6, OWN_PORTS);
        path_ = path("/s");
    }

    void register_all() const
    {
        vc_reg direct = relaying(AF_INET, direct_port_, nullptr, 4);
        direct.alloc_func = note_connection;
        direct.kill_func = nothing_to_kill;
        direct.shell_func = program_on_connection;
        must_register(relaying(AF_INET, port4_, nullptr, 6));
        must_register(relaying(AF_INET6, port6_, nullptr, 2));
        must_register(relaying(AF_UNIX, 0, path_.c_str(), 7));
        must_register(direct);
    }

    int connect_somewhere(unsigned int where) const
    {
        switch (where % SERVICES) {
        case 0:
            return connect_port(AF_INET, port4_);
        case 1:
            return connect_port(AF_INET6, port6_);
        case 2:
            return connect_path(path_);
        default:
            return connect_port(AF_INET, direct_port_);
        }
    }

    // Lines there and back. The terminal turns a line feed into two bytes, a
    // connection of its own does not.
    static bool talk(int client, std::minstd_rand *random, int *bytes)
    {
        const int lines = 1 + static_cast<int>((*random)() % LINES_MOST);

        for (int i = 0; i < lines; i++) {
            const std::string text(1 + (*random)() % LINE_LENGTH_MOST, 'a');
            if (!write_all(client, text + "\n")) {
                return false;
            }
            const std::string answer = read_until(client, "\n");
            if (answer != "> " + text + "\r\n" &&
                answer != "> " + text + "\n") {
                return false;
            }
            *bytes += static_cast<int>(text.size());
        }
        return true;
    }

    static void reset(int client)
    {
        const struct linger now = {1, 0};
        setsockopt(client, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }

    // Sends until the other side takes no more for a moment.
    static void flood(int client, int kilobytes)
    {
        const std::string text(1024, 'f');
        for (int i = 0; i < kilobytes; i++) {
            struct pollfd one = {client, POLLOUT, 0};
            if (poll(&one, 1, 20) <= 0 ||
                send(client, text.data(), text.size(),
                     MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
                break;
            }
        }
    }

    // Everybody but the well-behaved; what happens to them does not matter.
    static void misbehave(int client, behaviour how, std::minstd_rand *random)
    {
        switch (how) {
        case behaviour::resets:
            write_all(client, "reset\n");
            usleep(static_cast<useconds_t>((*random)() % 5000));
            reset(client);
            break;
        case behaviour::half_closes:
            write_all(client, "half\n");
            shutdown(client, SHUT_WR);
            ended(client);
            break;
        case behaviour::never_reads:
            flood(client, 64);
            usleep(20000);
            break;
        case behaviour::floods:
            flood(client, 2048);
            reset(client);
            break;
        case behaviour::lets_exit:
            write_all(client, "x\n");
            ended(client);
            break;
        case behaviour::lets_crash:
            write_all(client, "c\n");
            ended(client);
            break;
        default:
            write_all(client, "f\n");
            usleep(5000);
            break;
        }
    }

    // The inetd hears a moment later of what the daemon does by itself: a
    // listener that cannot be opened yet, as a child that was just killed
    // still has the old one, costs the clients that wait for a line theirs.
    static bool excused(int epoch, const ChaosInetd &inetd)
    {
        for (int i = 0; i < 30; i++) {
            if (epoch % 2 != 0 || inetd.epoch() != epoch) {
                return true;
            }
            usleep(10000);
        }
        return false;
    }

    // One client's life, again and again.
    void run_clients(unsigned int seed, const ChaosInetd &inetd)
    {
        std::minstd_rand random(seed);

        while (sessions_ < wanted_ && Clock::now() < end_) {
            const int epoch = inetd.epoch();
            const auto how = static_cast<behaviour>(
                random() % static_cast<unsigned int>(behaviour::COUNT));
            const int client =
                connect_somewhere(static_cast<unsigned int>(random()));
            if (client < 0) {
                usleep(5000);
                continue;
            }
            sessions_++;
            int bytes = 0;
            if (how != behaviour::well_behaved) {
                misbehave(client, how, &random);
            } else if (talk(client, &random, &bytes)) {
                good_++;
                good_bytes_ += bytes;
            } else if (!excused(epoch, inetd)) {
                lost_++;
            }
            close(client);
        }
    }

    // Brings the loop an event now and then, whatever errno holds, for as
    // long as there are clients that wait for data that is pending.
    void tick()
    {
        int client = -1;
        char scrap[256];

        while (!quiet_) {
            if (client < 0) {
                client = connect_path(path_);
            } else if (!write_all(client, "tick\n") ||
                       recv(client, scrap, sizeof scrap, MSG_DONTWAIT) == 0) {
                close(client);
                client = -1;
            }
            usleep(20000);
        }
        if (client >= 0) {
            close(client);
        }
    }

    void storm(pid_t daemon, unsigned int seed) const
    {
        std::minstd_rand random(seed);

        while (!quiet_) {
            const int number = random() % 2 == 0 ? SIGHUP : SIGCHLD;
            for (unsigned int i = 0; i < random() % 20; i++) {
                kill(daemon, number);
            }
            usleep(static_cast<useconds_t>(random() % 50000));
        }
    }

    // Clients, ticks and signals until the time or the number is over.
    void live_through(const Daemon &daemon, ChaosInetd *inetd,
                      unsigned int seed, int seconds, int most)
    {
        end_ = Clock::now() + std::chrono::seconds(seconds);
        wanted_ = most;
        quiet_ = false;
        inetd->calm_down(false);
        std::thread ticker([&] {
            tick();
        });
        std::thread stormer([&] {
            storm(daemon.pid(), seed);
        });
        std::vector<std::thread> clients;
        for (unsigned int i = 0; i < CLIENT_THREADS; i++) {
            clients.emplace_back([&, i] {
                run_clients(seed * 31 + i, *inetd);
            });
        }
        for (std::thread &client : clients) {
            client.join();
        }
        inetd->calm_down(true);
        quiet_ = true;
        ticker.join();
        stormer.join();
        // A listener that could not be opened, because a child that was being
        // killed still had the old one, has cost other services theirs: they
        // come back with the next connection, when no child is left.
        at_rest(daemon);
        EXPECT_TRUE(inetd->restart());
        EXPECT_TRUE(all_answer());
    }

    // Its anonymous memory in KiB, whether or not the test still shares it: a
    // share changes with what the test does.
    static long memory_of(pid_t pid)
    {
        std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
        std::string word;
        long size = -1;

        while (file >> word) {
            if (word == "Anonymous:" && file >> size) {
                break;
            }
        }
        return size;
    }

    // Without sessions: no process and no terminal is left.
    static bool idle(const Daemon &daemon)
    {
        return daemon.children().empty() && daemon.terminals() == 0;
    }

    // The number of descriptors at rest, without the log that is open for an
    // instant now and then.
    static size_t at_rest(const Daemon &daemon)
    {
        eventually([&] {
            kill(daemon.pid(), SIGHUP);
            usleep(20000);
            return idle(daemon);
        });
        size_t fewest = daemon.descriptors().size();
        for (int i = 0; i < 100; i++) {
            usleep(5000);
            fewest = std::min(fewest, daemon.descriptors().size());
        }
        return fewest;
    }

    static testing::AssertionResult comes_to_rest_at(const Daemon &daemon,
                                                     size_t descriptors)
    {
        size_t now = 0;
        // More than once: what is left to do may be much for a busy machine.
        for (int i = 0; i < REST_DEADLINES; i++) {
            if (eventually([&] {
                    return (now = at_rest(daemon)) == descriptors;
                })) {
                return testing::AssertionSuccess();
            }
        }
        testing::AssertionResult failure = testing::AssertionFailure();
        failure << now << " descriptors instead of " << descriptors << ", "
                << daemon.terminals() << " terminals and the children";
        for (const pid_t child : daemon.children()) {
            std::ifstream file("/proc/" + std::to_string(child) + "/syscall");
            std::string call;
            std::getline(file, call);
            failure << " " << child << " (in " << call << ")";
        }
        return failure;
    }

    bool all_answer() const
    {
        for (unsigned int where = 0; where < SERVICES; where++) {
            int client = -1;
            if (!eventually([&] {
                    client = connect_somewhere(where);
                    if (client >= 0 && write_all(client, "hello\n") &&
                        read_until(client, "\n").find("> hello") == 0) {
                        close(client);
                        return true;
                    }
                    if (client >= 0) {
                        close(client);
                    }
                    return false;
                })) {
                return false;
            }
        }
        return true;
    }

    int port4_ = 0;
    int port6_ = 0;
    int direct_port_ = 0;
    std::string path_;
    int wanted_ = 0;
    Clock::time_point end_;
    std::atomic<bool> quiet_{false};
    std::atomic<int> sessions_{0};
    std::atomic<int> good_{0};
    std::atomic<long> good_bytes_{0};
    std::atomic<int> lost_{0};
};

TEST_F(SoakTest, the_daemon_is_afterwards_what_it_was_before)
{
    const auto seed = static_cast<unsigned int>(
        setting("TTYLINE_SOAK_SEED", static_cast<int>(getpid())));
    const int seconds = setting("TTYLINE_SOAK_SECONDS", 15);
    printf("seed %u\n", seed);
    ChaosInetd inetd(seed, SERVICES);
    g_session_program = program_on_terminal;
    Daemon daemon([&] {
        register_all();
    });
    inetd.start();
    inetd.calm_down(true);
    ASSERT_TRUE(all_answer());
    const size_t descriptors = at_rest(daemon);

    // The first part makes the heap as big as it has to be.
    const int most = setting("TTYLINE_SOAK_SESSIONS", 1 << 30);
    live_through(daemon, &inetd, seed, seconds / 4, most / 4);
    EXPECT_TRUE(comes_to_rest_at(daemon, descriptors));
    const long memory = memory_of(daemon.pid());
    live_through(daemon, &inetd, seed + 1, seconds - seconds / 4, most);
    EXPECT_TRUE(comes_to_rest_at(daemon, descriptors));
    EXPECT_TRUE(daemon.has_no_children());
    const long memory_after = memory_of(daemon.pid());

    EXPECT_EQ(lost_, 0) << "well-behaved clients without an excuse";
    EXPECT_GT(good_, 0);
    printf("%d sessions, %d of them whole with %ld bytes, %d lines clean, "
           "%d epochs, memory %ld to %ld KiB\n",
           sessions_.load(), good_.load(), good_bytes_.load(), inetd.cleans(),
           inetd.epoch() / 2, memory, memory_after);
    if (!INSTRUMENTED) {
        EXPECT_LE(memory_after, memory + MEMORY_NOISE_KIB);
    }
}
