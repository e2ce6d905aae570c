// An inetd that serves as it should most of the time and otherwise does its
// worst, on a thread of its own.
#pragma once

#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <thread>

#include "tests/system/support/fake_inetd.h"

class ChaosInetd
{
  public:
    // For a daemon with so many services.
    ChaosInetd(unsigned int seed, int services);
    ~ChaosInetd();
    ChaosInetd(const ChaosInetd &) = delete;
    ChaosInetd &operator=(const ChaosInetd &) = delete;

    // Not before the daemon has been forked.
    void start();
    // While it is calm it does only what an inetd should do.
    void calm_down(bool calm)
    {
        calm_ = calm;
    }

    // Ends the connection of the daemon and waits for the next one; false
    // when none comes.
    bool restart();

    // Even while sessions can be relied on; the number changes with every
    // harm that is done to them. A session that began and ended in the same
    // even epoch had no excuse to fail.
    int epoch() const
    {
        return epoch_;
    }
    int cleans() const
    {
        return cleans_;
    }

  private:
    using Clock = std::chrono::steady_clock;

    void run();
    void serve(InetdConnection *connection);
    bool settle(int permits, Clock::time_point began);
    void answer(InetdConnection *connection, const tty_cmsg &record);
    void give_line(InetdConnection *connection, const tty_cmsg &report);
    void tease(InetdConnection *connection, const tty_cmsg &record);
    void harm(InetdConnection *connection);
    unsigned int roll(unsigned int sides);

    FakeInetd inetd_;
    const int services_;
    std::minstd_rand random_;
    std::set<int> free_lines_;
    tty_cmsg last_assigned_ = {};
    bool ended_here_ = true;
    std::atomic<bool> ending_{false};
    std::atomic<bool> calm_{false};
    std::atomic<bool> restarting_{false};
    std::atomic<int> epoch_{1};
    std::atomic<int> cleans_{0};
    std::thread thread_;
};
