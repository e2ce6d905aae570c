// The line store among processes that are killed in the middle of their work,
// and in surroundings that fail.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ttyline/tty.h>

#include "tests/support/privroot.h"
#include "tests/support/runtime.h"

constexpr unsigned int LINE = 300;
constexpr size_t WORKERS = 8;
constexpr int KILLS = 2000;

// Each worker changes one key; the constant ones lie between them.
static const std::array<const char *, WORKERS> worker_keys = {
    "LOGNAME",  "TTYPID", "SESSIONID", "PEERNAME",
    "SOCKADDR", "SPEED",  "IDLE",      "AUTOCMD"};
static const std::array<const char *, 4> constant_keys = {"HOME", "SHELL",
                                                          "TERM", "TZ"};

// What the test shares with its workers: per worker the number of the set
// that has begun and of the one that was seen to end.
struct progress {
    std::atomic<unsigned int> begun[WORKERS];
    std::atomic<unsigned int> ended[WORKERS];
    std::atomic<unsigned int> wrong;
};

// A value tells by itself whether it is whole; its length changes.
static std::string value_of(unsigned int number)
{
    const std::string digits = std::to_string(number);
    return digits + std::string(1 + number % 40, '.') + digits;
}

static std::string get(const char *name)
{
    char value[512];

    return tty_getenv(LINE, name, value, sizeof value) != nullptr ? value : "";
}

static bool is_whole(const std::string &value)
{
    return value.empty() ||
           value == value_of(static_cast<unsigned int>(atol(value.c_str())));
}

class StoreAttackTest : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        make_directories();
        shared_ = static_cast<progress *>(
            mmap(nullptr, sizeof *shared_, PROT_READ | PROT_WRITE,
                 MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(shared_, MAP_FAILED);
        random_.seed(seed_);
    }

    void TearDown() override
    {
        for (const pid_t worker : workers_) {
            if (worker > 0) {
                kill(worker, SIGKILL);
                waitpid(worker, nullptr, 0);
            }
        }
        munmap(shared_, sizeof *shared_);
        runtime_test::TearDown();
    }

    [[noreturn]] void work(size_t self)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (unsigned int n = shared_->begun[self] + 1;; n++) {
            const std::string value = value_of(n);
            shared_->begun[self] = n;
            if (tty_setenv(LINE, worker_keys[self], value.c_str()) != 0 ||
                get(worker_keys[self]) != value) {
                shared_->wrong++;
            }
            shared_->ended[self] = n;
            const char *other = worker_keys[(self + n) % WORKERS];
            if (!is_whole(get(other))) {
                shared_->wrong++;
            }
        }
    }

    void start(size_t self)
    {
        workers_[self] = fork();
        if (workers_[self] == 0) {
            work(self);
        }
        ASSERT_GT(workers_[self], 0);
    }

    // The value as it stands in the file, without waiting for the lock: the
    // file is replaced as a whole.
    std::string look(const char *name) const
    {
        const std::string key = std::string(name) + "=";
        for (const std::string &line : support::lines_of(info())) {
            if (line.compare(0, key.size(), key) == 0) {
                return line.substr(key.size(), line.size() - key.size() - 2);
            }
        }
        return "";
    }

    // What stands there after its writer was killed: the last value that was
    // stored for sure, or the one that was being stored.
    void expect_old_or_new(size_t self)
    {
        const unsigned int ended = shared_->ended[self];
        const unsigned int begun = shared_->begun[self];
        const std::string value = look(worker_keys[self]);
        EXPECT_TRUE(value == value_of(begun) ||
                    value == (ended == 0 ? "" : value_of(ended)))
            << worker_keys[self] << " is " << value << " after " << ended
            << " and " << begun;
        // The next writer goes on from here: what stands there stays.
        shared_->ended[self] = value == value_of(begun) ? begun : ended;
    }

    std::string info() const
    {
        return path("/mng/tty/.tty_info_300");
    }

    progress *shared_ = nullptr;
    std::array<pid_t, WORKERS> workers_ = {};
    unsigned int seed_ = static_cast<unsigned int>(getpid());
    std::minstd_rand random_;
};

TEST_F(StoreAttackTest, two_thousand_kills_lose_nothing)
{
    printf("seed %u\n", seed_);
    for (const char *name : constant_keys) {
        ASSERT_EQ(tty_setenv(LINE, name, name), 0);
    }
    for (size_t i = 0; i < WORKERS; i++) {
        start(i);
    }
    for (int i = 0; i < KILLS && !HasFailure(); i++) {
        const size_t victim = random_() % WORKERS;
        usleep(static_cast<useconds_t>(random_() % 4000));
        ASSERT_EQ(kill(workers_[victim], SIGKILL), 0);
        ASSERT_EQ(waitpid(workers_[victim], nullptr, 0), workers_[victim]);
        expect_old_or_new(victim);
        start(victim);
        // The lock went with its holder, or this would not come back.
        if (i % 50 == 0) {
            EXPECT_EQ(get("HOME"), "HOME");
        }
    }
    for (const char *name : constant_keys) {
        EXPECT_EQ(get(name), name);
    }
    EXPECT_EQ(shared_->wrong, 0u);
    unsigned int sets = 0;
    for (size_t i = 0; i < WORKERS; i++) {
        kill(workers_[i], SIGKILL);
        waitpid(workers_[i], nullptr, 0);
        workers_[i] = 0;
        expect_old_or_new(i);
        sets += shared_->ended[i];
    }
    printf("%u sets\n", sets);
    EXPECT_GT(sets, static_cast<unsigned int>(KILLS) / 10);
    // Twelve keys, each once: nothing was invented either.
    EXPECT_EQ(support::lines_of(info()).size(),
              worker_keys.size() + constant_keys.size());
    const int lock = open((info() + ".lock").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(tty_flock_try(lock), 0);
    close(lock);
}

// A temporary file that a killed set left behind is begun anew.
TEST_F(StoreAttackTest, what_a_killed_set_left_behind_is_not_read)
{
    ASSERT_EQ(tty_setenv(LINE, "HOME", "/root"), 0);
    support::spill(info() + ".tmp",
                   "HOME=/wrong\r\nSHELL=wrong\r\n" + std::string(4000, 'x'));
    EXPECT_EQ(get("HOME"), "/root");
    EXPECT_EQ(get("SHELL"), "");
    EXPECT_EQ(tty_setenv(LINE, "TERM", "vt100"), 0);
    EXPECT_EQ(support::slurp(info()), "HOME=/root\r\nTERM=vt100\r\n");
    EXPECT_FALSE(support::exists(info() + ".tmp"));
}

TEST_F(StoreAttackTest, without_descriptors_nothing_is_lost)
{
    ASSERT_EQ(tty_setenv(LINE, "HOME", "/root"), 0);
    const std::string before = support::slurp(info());
    struct rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<int> held;
    const rlim_t soft = limit.rlim_cur;
    limit.rlim_cur = 256;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
        held.push_back(fd);
    }
    // One set needs three descriptors: with 0, 1 and 2 left it fails at each
    // of its files in turn.
    for (int left = 0; left < 3; left++) {
        EXPECT_EQ(tty_setenv(LINE, "HOME", "/new"), -1) << left;
        if (left < 2) {
            EXPECT_EQ(get("HOME"), "") << left;
        }
        close(held.back());
        held.pop_back();
    }
    EXPECT_EQ(get("HOME"), "/root");
    EXPECT_EQ(tty_setenv(LINE, "TERM", "vt100"), 0);
    for (const int fd : held) {
        close(fd);
    }
    limit.rlim_cur = soft;
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(support::slurp(info()), before + "TERM=vt100\r\n");
}

TEST_F(StoreAttackTest, a_link_is_replaced_and_its_target_left_alone)
{
    support::spill(path("/target"), "HOME=/root\r\n");
    ASSERT_EQ(symlink(path("/target").c_str(), info().c_str()), 0);
    EXPECT_EQ(get("HOME"), "/root");
    EXPECT_EQ(tty_setenv(LINE, "TERM", "vt100"), 0);
    struct stat status;
    ASSERT_EQ(lstat(info().c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(support::slurp(info()), "HOME=/root\r\nTERM=vt100\r\n");
    EXPECT_EQ(support::slurp(path("/target")), "HOME=/root\r\n");
}

TEST_F(StoreAttackTest, a_link_to_itself_fails_and_stays)
{
    ASSERT_EQ(symlink(info().c_str(), info().c_str()), 0);
    EXPECT_EQ(get("HOME"), "");
    EXPECT_EQ(tty_setenv(LINE, "HOME", "/root"), -1);
    struct stat status;
    ASSERT_EQ(lstat(info().c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
}

TEST_F(StoreAttackTest, a_directory_fails_and_stays)
{
    ASSERT_EQ(mkdir(info().c_str(), 0755), 0);
    EXPECT_EQ(get("HOME"), "");
    EXPECT_EQ(tty_setenv(LINE, "HOME", "/root"), -1);
    struct stat status;
    ASSERT_EQ(lstat(info().c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_FALSE(support::exists(info() + ".tmp"));
    // Nothing keeps the line locked.
    const int lock = open((info() + ".lock").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(tty_flock_try(lock), 0);
    close(lock);
}

class StoreOnBadDiskTest : public support::private_root_test
{
  protected:
    static void mount_at(const char *options, unsigned long flags)
    {
        ASSERT_EQ(mount("tmpfs", "/mng/tty", "tmpfs", flags, options), 0);
    }
};

TEST_F(StoreOnBadDiskTest, a_read_only_directory_keeps_what_is_stored)
{
    make_directories("/mng/tty");
    mount_at("size=64k", 0);
    ASSERT_EQ(tty_setenv(LINE, "HOME", "/root"), 0);
    ASSERT_EQ(
        mount(nullptr, "/mng/tty", nullptr, MS_REMOUNT | MS_RDONLY, nullptr),
        0);
    EXPECT_EQ(tty_setenv(LINE, "HOME", "/new"), -1);
    // A get needs the lock file open for writing, so it finds nothing either.
    EXPECT_EQ(get("HOME"), "");
    ASSERT_EQ(mount(nullptr, "/mng/tty", nullptr, MS_REMOUNT, nullptr), 0);
    EXPECT_EQ(get("HOME"), "/root");
}

TEST_F(StoreOnBadDiskTest, a_disk_without_room_for_a_file_keeps_what_is_stored)
{
    make_directories("/mng/tty");
    // Inodes for the directory, the line's file, its lock and the log.
    mount_at("nr_inodes=4", 0);
    ASSERT_EQ(mknod("/mng/tty/.tty_info_300", S_IFREG | 0777, 0), 0);
    support::spill("/mng/tty/.tty_info_300", "HOME=/root\r\n");
    support::spill("/mng/tty/.tty_info_300.lock", "");
    support::spill("/mng/tty/.tty_lib_dump.txt", "");
    EXPECT_EQ(tty_setenv(LINE, "HOME", "/new"), -1);
    EXPECT_EQ(get("HOME"), "/root");
}

// What is short of room in the middle of a copy is reported, and moved into
// place all the same.
TEST_F(StoreOnBadDiskTest, a_full_disk_loses_what_it_reports)
{
    make_directories("/mng/tty");
    mount_at("size=8k", 0);
    ASSERT_EQ(symlink("/tmp/dump", "/mng/tty/.tty_lib_dump.txt"), 0);
    ASSERT_EQ(tty_setenv(LINE, "HOME", "/root"), 0);
    // The line's file has a page; this takes the other one.
    support::spill("/mng/tty/filler", std::string(4096, 'x'));
    EXPECT_EQ(tty_setenv(LINE, "TERM", "vt100"), 0);
    EXPECT_EQ(get("HOME"), "");
    // The line that was copied, and the new one.
    const std::string log = support::slurp("/tmp/dump");
    const std::string reason = "fail ret -1 err:No space left on device";
    const size_t first = log.find(reason);
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(log.find("TERM=vt100 " + reason, first + 1), std::string::npos);
}
