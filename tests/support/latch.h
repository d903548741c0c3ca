// Latch: a one-shot signal between threads of a test, with a bounded wait so that a
// broken component fails the test instead of hanging it. Open raises it for good;
// Wait returns as soon as it is raised, or false when the time is up.
//
// Thread-safe. Open notifies with the mutex held, so that a waiter may destroy the
// latch as soon as it has seen it raised.
#pragma once

#include <condition_variable>
#include <mutex>

namespace apm {
namespace test {

class Latch {
 public:
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool Wait(int milliseconds = 10000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), [this]() { return open_; });
  }
  bool IsOpen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

}  // namespace test
}  // namespace apm
