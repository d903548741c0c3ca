// Latch: a one-shot signal between threads of a test, with a bounded wait so that a
// broken component fails the test instead of hanging it. It is raised for good once
// Open has been called as many times as it was made for (once by default); Wait
// returns as soon as it is raised, or false when the time is up.
//
// Thread-safe. Open notifies with the mutex held, so that a waiter may destroy the
// latch as soon as it has seen it raised.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace apm {
namespace test {

class Latch {
 public:
  explicit Latch(std::size_t openings = 1) : remaining_(openings) {}

  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (remaining_ != 0 && --remaining_ == 0) changed_.notify_all();
  }
  bool Wait(int milliseconds = 10000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), [this]() { return remaining_ == 0; });
  }
  bool IsOpen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return remaining_ == 0;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t remaining_;
};

}  // namespace test
}  // namespace apm
