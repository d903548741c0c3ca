// CriticalSection: a recursive POSIX mutex for code that needs mutual exclusion
// without a condition.
//
// The object owns the mutex and destroys it with itself. A thread that holds the
// section may enter it again; it is free once every Enter has its Leave.
// Thread-safe: that is its purpose.
//
// InitRecursiveMutex is the one place where the recursive mutexes of the base layer
// (this class and ConditionVariable) are set up.
#pragma once

#include <pthread.h>

namespace apm {
namespace base {

// Initialises `mutex` as PTHREAD_MUTEX_RECURSIVE; should setting up the attribute
// fail, as a default mutex.
void InitRecursiveMutex(pthread_mutex_t& mutex);

class CriticalSection {
 public:
  CriticalSection();
  ~CriticalSection();
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void Enter();
  void Leave();

  // Holds a CriticalSection for the lifetime of the object.
  class ScopedLock {
   public:
    explicit ScopedLock(CriticalSection& section) : section_(section) { section_.Enter(); }
    ~ScopedLock() { section_.Leave(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

   private:
    CriticalSection& section_;
  };

 private:
  pthread_mutex_t mutex;
};

}  // namespace base
}  // namespace apm
