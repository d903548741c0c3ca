// ConditionVariable: a recursive POSIX mutex paired with a POSIX condition.
//
// The object owns both and destroys them with itself. The caller does the locking:
// Wait and WaitUntil must be called with the mutex held (taken by Lock or by a
// ScopedLock), and return with it held again. Because the mutex is recursive, a
// thread that already holds it may lock it again; Wait releases it only if it is
// held exactly once. Wakeup wakes one waiter, WakeupAll every waiter; both may be
// called with or without the mutex held.
//
// Thread-safe: that is its purpose. Waits may wake spuriously, so callers test
// their own condition in a loop.
#pragma once

#include <pthread.h>

namespace apm {
namespace base {

class ConditionVariable {
 public:
  ConditionVariable();
  ~ConditionVariable();
  ConditionVariable(const ConditionVariable&) = delete;
  ConditionVariable& operator=(const ConditionVariable&) = delete;

  void Lock();
  void Unlock();

  // Blocks until woken. The mutex must be held.
  void Wait();
  // Blocks until woken or until the absolute time given in microseconds since
  // the epoch on the real-time clock has passed. The mutex must be held. Whether
  // the wait timed out is not reported.
  void WaitUntil(unsigned long microsecondsSinceEpoch);

  void Wakeup();
  void WakeupAll();

  // Holds the mutex of a ConditionVariable for the lifetime of the object.
  class ScopedLock {
   public:
    explicit ScopedLock(ConditionVariable& condition) : condition_(condition) { condition_.Lock(); }
    ~ScopedLock() { condition_.Unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

   private:
    ConditionVariable& condition_;
  };

 private:
  pthread_mutex_t mutex;
  pthread_cond_t condition;
};

}  // namespace base
}  // namespace apm
