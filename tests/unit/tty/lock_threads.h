// Threads that hold the library's lock or ask for it.
#pragma once

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include <ttyline/tty.h>

#include "tests/support/wait.h"

// A thread that holds the lock until it is told to end.
class holding_thread
{
  public:
    holding_thread()
        : thread([this] {
              tty_lib_lock();
              holds = true;
              support::wait_until([this] {
                  return end.load();
              });
              tty_lib_unlock();
          })
    {
        EXPECT_TRUE(support::wait_until([this] {
            return holds.load();
        }));
    }

    ~holding_thread()
    {
        end = true;
        thread.join();
    }

  private:
    std::atomic<bool> holds{false};
    std::atomic<bool> end{false};
    std::thread thread;
};

// A thread that takes the lock once and tells when it had it.
class asking_thread
{
  public:
    asking_thread()
        : thread([this] {
              tty_lib_lock();
              had_it = true;
              tty_lib_unlock();
          })
    {
    }

    ~asking_thread()
    {
        thread.join();
    }

    bool gets_it(int milliseconds)
    {
        return support::wait_until(
            [this] {
                return had_it.load();
            },
            milliseconds);
    }

  private:
    std::atomic<bool> had_it{false};
    std::thread thread;
};
